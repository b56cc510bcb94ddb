#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "auth/ntlm.h"
#include "common/utils.h"

using namespace Vexa;

TEST(Ntlm, NtHashIsMd4OverUtf16NotUtf8) {
    const std::pair<const char*, const char*> cases[] = {
        {"password", "8846f7eaee8fb117ad06bdd830b7586c"},
        {"", "31d6cfe0d16ae931b73c59d7e0c089c0"},
        // Cyrillic: two UTF-8 bytes, one UTF-16 unit each (the UTF-8 bytes would give 17c46b64...).
        {"\xD0\xBF\xD0\xB0\xD1\x80\xD0\xBE\xD0\xBB\xD1\x8C", "507e3ee80df7db7c1fdd8d50ae8db606"},
        // Euro sign (three bytes) and an emoji beyond the basic plane (a surrogate pair).
        {"p\xE2\x82\xACss\xF0\x9F\x98\x80", "91c818a7d53c83a16c0476517fd90694"},
    };
    for (const auto& [password, expected] : cases) {
        EXPECT_EQ(WinprCompat::NTLMv1(password), expected) << password;
    }
}

TEST(Ntlm, NtlmV2UpperCasesTheUserButNotTheDomain) {
    // The NTOWFv2 example of Microsoft's NTLM documentation.
    EXPECT_EQ(WinprCompat::NTLMv2("User", "Domain", "Password"), "0c868a403bfd7a93a3001ef22ef02e3f");
    EXPECT_EQ(WinprCompat::NTLMv2("user", "Domain", "Password"), "0c868a403bfd7a93a3001ef22ef02e3f");
    EXPECT_EQ(WinprCompat::NTLMv2("User", "DOMAIN", "Password"), "f38efea48ada6afaa95ae44669e5634b");
}

TEST(Ntlm, HashLineHasEmptyLanManagerFieldAndNoNewline) {
    EXPECT_EQ(ntlmHashLine("alice", "CORP", "password", false), "alice:CORP::8846f7eaee8fb117ad06bdd830b7586c:::");
    EXPECT_EQ(ntlmHashLine("User", "Domain", "Password", true), "User:Domain::0c868a403bfd7a93a3001ef22ef02e3f:::");
}

TEST(Utils, String2UnicodeReplacesIllFormedInput) {
    const std::pair<std::string, std::u16string> cases[] = {
        // Each maximal ill-formed piece becomes one U+FFFD and the text goes on after it (well-formed text: above).
        {"a\x80z", u"a\uFFFDz"},
        {"\xF0\x9F\x98", u"\uFFFD"},
        {"\xC0\xAF", u"\uFFFD\uFFFD"},                     // overlong '/'
        {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"}, // beyond U+10FFFF
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(Utils::string2unicode(text), expected) << ::testing::PrintToString(text);
    }
}
