#include <cstring>
#include <pwd.h>

#include <gtest/gtest.h>

#include "auth/ntlm.h"
#include "common/utils.h"
#include "session/session.h"

using namespace Vexa;

namespace {

std::string hex(const std::vector<uint8_t>& bytes) {
    return Utils::hexRange(bytes.data(), bytes.data() + bytes.size());
}

} // namespace

TEST(Ntlm, DigestsMatchPublishedVectors) {
    const std::string abc = "abc";
    EXPECT_EQ(hex(MHash::Digest_MD4(abc.data(), abc.size())), "a448017aaf21d8525fc10ae87aa6729d");
    EXPECT_EQ(hex(MHash::Digest_MD4("", 0)), "31d6cfe0d16ae931b73c59d7e0c089c0");

    const std::vector<uint8_t> key(16, 0x0b);
    const std::string data = "Hi There";
    EXPECT_EQ(hex(MHash::HMAC_MD5(data.data(), data.size(), key.data(), key.size())),
              "9294727a3638bb1c13f48ef8158bfc9d");
}

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
        {"USER", "Domain", "Password", "0c868a403bfd7a93a3001ef22ef02e3f"},
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
        EXPECT_EQ(ntlmHashLine(user, domain, password, v2), expected);
    }
}

TEST(Ntlm, CreateHashFileStoresTheLineInTheSessionUserReplacingTheOldOne) {
    passwd entry{};
    entry.pw_name = const_cast<char*>("user");
    auto user = std::make_shared<UserEx>(entry, false);
    user->domain = "Domain";
    user->ntlm = "stale:line::00:::";
    auto session = std::make_shared<Session>(7, user, ServiceDefaults{});

    EXPECT_TRUE(vexaCreateNTLMhashFile(session, "Password", true));
    EXPECT_EQ(user->ntlm, "user:Domain::0c868a403bfd7a93a3001ef22ef02e3f:::");
    EXPECT_TRUE(vexaCreateNTLMhashFile(session, "password", false));
    EXPECT_EQ(user->ntlm, "user:Domain::8846f7eaee8fb117ad06bdd830b7586c:::");
}

TEST(Utils, String2UnicodeMakesSurrogatePairsAndReplacesIllFormedInput) {
    const std::pair<const char*, std::u16string> cases[] = {
        {"", u""},
        {"Az", u"Az"},
        {"\xD0\x9F", u"\u041F"},
        {"\xE2\x82\xAC", u"\u20AC"},
        {"\xF0\x9F\x98\x80", std::u16string{0xD83D, 0xDE00}},
        {"\xF4\x8F\xBF\xBF", std::u16string{0xDBFF, 0xDFFF}},
        // Each maximal ill-formed piece becomes one U+FFFD and the text goes on after it.
        {"a\x80z", u"a\uFFFDz"},
        {"\xE2\x82x", u"\uFFFDx"},
        {"\xF0\x9F\x98", u"\uFFFD"},
        {"\xC0\xAF", u"\uFFFD\uFFFD"},                     // overlong '/'
        {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},           // encoded surrogate
        {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"}, // beyond U+10FFFF
        {"\xFF"
         "A",
         u"\uFFFDA"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_TRUE(Utils::string2unicode(text) == expected) << Utils::hexRange(
            reinterpret_cast<const uint8_t*>(text), reinterpret_cast<const uint8_t*>(text) + strlen(text), " ");
    }
}

TEST(Utils, HexRangeWritesLowercasePairsWithSeparatorAndPrefix) {
    const std::vector<uint8_t> bytes{0x00, 0xab, 0x7f};
    const auto* first = bytes.data();
    const auto* last = bytes.data() + bytes.size();
    EXPECT_EQ(Utils::hexRange(first, last), "00ab7f");
    EXPECT_EQ(Utils::hexRange(first, last, ":"), "00:ab:7f");
    EXPECT_EQ(Utils::hexRange(first, last, " ", true), "0x00 0xab 0x7f");
    EXPECT_EQ(Utils::hexRange(first, first, ":", true), "");
}

TEST(Utils, StringUpperChangesOnlyAsciiLetters) {
    EXPECT_EQ(Utils::stringUpper("User-42_x\xD0\xBF"), "USER-42_X\xD0\xBF");
}
