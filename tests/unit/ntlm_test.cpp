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
    const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
        // The NTOWFv2 example of Microsoft's NTLM documentation.
        {"User", "Domain", "Password", "0c868a403bfd7a93a3001ef22ef02e3f"},
        {"user", "Domain", "Password", "0c868a403bfd7a93a3001ef22ef02e3f"},
        {"User", "DOMAIN", "Password", "f38efea48ada6afaa95ae44669e5634b"},
        {"User", "domain", "Password", "51286d67402c2f373fac9967c967b19d"},
        // Non-ASCII domain and password go through UTF-16 unchanged.
        {"ivan", "\xD0\x9E\xD1\x84\xD0\xB8\xD1\x81", "\xD0\xBF\xD0\xB0\xD1\x80\xD0\xBE\xD0\xBB\xD1\x8C",
         "3e42ce6dd2ff22136ba493edf3e0e7e6"},
    };
    for (const auto& [user, domain, password, expected] : cases) {
        EXPECT_EQ(WinprCompat::NTLMv2(user, domain, password), expected) << user << "@" << domain;
    }
}

TEST(Ntlm, HashLineHasEmptyLanManagerFieldAndNoNewline) {
    const std::tuple<const char*, const char*, const char*, bool, const char*> cases[] = {
        {"alice", "CORP", "password", false, "alice:CORP::8846f7eaee8fb117ad06bdd830b7586c:::"},
        {"alice", "", "", false, "alice:::31d6cfe0d16ae931b73c59d7e0c089c0:::"},
        {"User", "Domain", "Password", true, "User:Domain::0c868a403bfd7a93a3001ef22ef02e3f:::"},
    };
    for (const auto& [user, domain, password, v2, expected] : cases) {
        EXPECT_EQ(ntlmHashLine(user, domain, password, v2), expected) << user;
    }
}

TEST(Utils, String2UnicodeMakesSurrogatePairsAndReplacesIllFormedInput) {
    const std::pair<std::string, std::u16string> cases[] = {
        {"A\xD0\x9F\xE2\x82\xAC", u"A\u041F\u20AC"},
        {"\xF0\x9F\x98\x80", std::u16string{0xD83D, 0xDE00}},
        // Each maximal ill-formed piece becomes one U+FFFD and the text goes on after it.
        {"a\x80z", u"a\uFFFDz"},
        {"\xF0\x9F\x98", u"\uFFFD"},
        {"\xC0\xAF", u"\uFFFD\uFFFD"},                     // overlong '/'
        {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},           // encoded surrogate
        {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"}, // beyond U+10FFFF
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_TRUE(Utils::string2unicode(text) == expected)
            << Utils::hexRange(reinterpret_cast<const uint8_t*>(text.data()),
                               reinterpret_cast<const uint8_t*>(text.data() + text.size()), " ");
    }
}
