// The low-level Blowfish interface builds the test ciphertexts; it is deprecated in OpenSSL 3.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <unistd.h>

#include <gtest/gtest.h>
#include <openssl/blowfish.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "auth/credentials.h"
#include "auth/openssl.h"
#include "common/logger.h"
#include "common/utils.h"

using namespace Vexa;
namespace fs = std::filesystem;

namespace {

std::string logged(const std::function<void()>& call) {
    Syslog::setDebugLevel(DebugLevel::Console);
    ::testing::internal::CaptureStderr();
    call();
    Syslog::setDebugLevel(DebugLevel::None);
    return ::testing::internal::GetCapturedStderr();
}

bool contains(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

std::vector<uint8_t> unhex(std::string_view text) {
    return Utils::hexstr2bytes(text);
}

std::string hex(const std::vector<uint8_t>& data) {
    return Utils::hexRange(data.data(), data.data() + data.size());
}

// An 8-byte Blowfish key schedules exactly as the same key written twice (the schedule cycles the key bytes
// over 72 bytes), so the published 8-byte-key vectors also test the 16-byte minimum of the string decryption.
std::vector<uint8_t> twice(std::string_view hexKey) {
    auto key = unhex(hexKey);
    key.insert(key.end(), key.begin(), key.end());
    return key;
}

// Hex of the ECB encryption of `plain`, zero-padded to whole blocks.
std::string encrypt(std::string_view plain, std::string_view key) {
    BF_KEY schedule;
    BF_set_key(&schedule, static_cast<int>(key.size()), reinterpret_cast<const uint8_t*>(key.data()));
    std::vector<uint8_t> in(plain.begin(), plain.end());
    in.resize((in.size() + 7) / 8 * 8);
    std::vector<uint8_t> out(in.size());
    for (size_t pos = 0; pos < in.size(); pos += 8) {
        BF_ecb_encrypt(in.data() + pos, out.data() + pos, &schedule, BF_ENCRYPT);
    }
    return hex(out);
}

// Published Blowfish ECB vectors (Eric Young's set): key, plaintext, ciphertext.
struct EcbVector {
    const char* key;
    const char* plain;
    const char* crypt;
};
constexpr EcbVector ecbVectors[] = {
    {"0000000000000000", "0000000000000000", "4ef997456198dd78"},
    {"ffffffffffffffff", "ffffffffffffffff", "51866fd5b85ecb8a"},
    {"3000000000000000", "1000000000000001", "7d856f9a613063f2"},
    {"1111111111111111", "1111111111111111", "2466dd878b963c9d"},
    {"0123456789abcdef", "1111111111111111", "61f9c3802281b096"},
    {"fedcba9876543210", "0123456789abcdef", "0aceab0fc6a0a28d"},
    {"3849674c2602319e", "51454b582ddf440a", "a25e7856cf2651eb"},
    {"1c587f1c13924fef", "305532286d6f295a", "55cb3774d13ef201"},
};

} // namespace

TEST(Hexstr2bytes, TakesPairsOfDigitsAndRefusesAnythingElse) {
    const std::pair<const char*, std::vector<uint8_t>> cases[] = {
        {"", {}},
        {"00ff7A", {0x00, 0xff, 0x7a}},
        {"abc", {0xab, 0x0c}},
        {"zz", {}},
        {"0x12", {}},
        {"1g", {}},
        {"+1", {}},
        {" 1", {}},
        {"-1", {}},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(Utils::hexstr2bytes(text), expected) << text;
    }
    const auto text = logged([] { Utils::hexstr2bytes("12zz"); });
    EXPECT_TRUE(contains(text, "hexstr2bytes: failed, strhex: `12zz'")) << text;
}

TEST(Blowfish, BlocksMatchPublishedEcbVectors) {
    for (const auto& v : ecbVectors) {
        EXPECT_EQ(hex(OpenSSL::blowfishDecryptBlocks(unhex(v.crypt), unhex(v.key))), v.plain) << v.key;
        EXPECT_EQ(hex(OpenSSL::blowfishDecryptBlocks(unhex(v.crypt), twice(v.key))), v.plain) << v.key;
    }
}

TEST(Blowfish, BlocksUseEveryKeyByteUpTo56) {
    // Eric Young's variable-key vectors: the first n bytes of one key, plaintext fedcba9876543210.
    const auto full = unhex("f0e1d2c3b4a5968778695a4b3c2d1e0f0011223344556677");
    const std::pair<size_t, const char*> cases[] = {
        {1, "f9ad597c49db005e"},  {8, "e87a244e2cc85e82"},  {15, "79d9373a714ca34f"},
        {16, "93142887ee3be15c"}, {17, "03429e838ce2d14b"}, {24, "05044b62fa52d080"},
    };
    for (const auto& [length, crypt] : cases) {
        const std::vector<uint8_t> key(full.begin(), full.begin() + static_cast<ptrdiff_t>(length));
        EXPECT_EQ(hex(OpenSSL::blowfishDecryptBlocks(unhex(crypt), key)), "fedcba9876543210") << length;
    }
    // Bytes beyond the 56th do not count.
    std::vector<uint8_t> key56(56, 0x5a);
    auto key64 = key56;
    key64.resize(64, 0xa5);
    const auto crypt = unhex(encrypt("printabl", std::string(key56.begin(), key56.end())));
    EXPECT_EQ(OpenSSL::blowfishDecryptString(crypt, key64), "printabl");
}

TEST(Blowfish, StringIsThePrintablePrefixOfEveryBlockDecryptedOnItsOwn) {
    const std::tuple<const char*, std::string, const char*> cases[] = {
        {"1c587f1c13924fef", "55cb3774d13ef201", "0U2(mo)Z"},
        {"1c587f1c13924fef", "55cb3774d13ef20155cb3774d13ef201", "0U2(mo)Z0U2(mo)Z"},
        {"3849674c2602319e", "a25e7856cf2651eb", "QEKX-"},
        {"0000000000000000", "4ef997456198dd78", ""},
        {"1111111111111111", "2466dd878b963c9d", ""},
    };
    for (const auto& [key, crypt, expected] : cases) {
        EXPECT_EQ(OpenSSL::blowfishDecryptString(unhex(crypt), twice(key)), expected) << crypt;
    }
}

TEST(Blowfish, StringRefusesShortKeysAndPartialBlocks) {
    const auto key16 = twice("1c587f1c13924fef");
    const std::vector<uint8_t> key15(key16.begin(), key16.end() - 1);
    const std::tuple<std::vector<uint8_t>, std::vector<uint8_t>, const char*> cases[] = {
        {unhex("55cb3774d13ef201"), key15, "blowfishDecryptString: key length failed: 15"},
        {unhex("55cb3774d13ef20155cb3774"), key16, "blowfishDecryptString: crypt length failed: 12"},
        {{}, key16, "blowfishDecryptString: crypt length failed: 0"},
    };
    for (const auto& [crypt, key, message] : cases) {
        std::string result = "unset";
        const auto text = logged([&] { result = OpenSSL::blowfishDecryptString(crypt, key); });
        EXPECT_EQ(result, "");
        EXPECT_TRUE(contains(text, message)) << text;
    }
}

TEST(Blowfish, CipherInterfaceUsesTheFirst16KeyBytesAndChecksPadding) {
    // Plaintext 1000000000000001: seven bytes and one byte of padding.
    const auto crypt = unhex("7d856f9a613063f2");
    auto key = twice("3000000000000000");
    EXPECT_EQ(hex(OpenSSL::blowfishDecrypt(crypt, key)), "10000000000000");
    key.insert(key.end(), {1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_EQ(hex(OpenSSL::blowfishDecrypt(crypt, key)), "10000000000000");

    std::vector<uint8_t> result{1};
    auto text =
        logged([&] { result = OpenSSL::blowfishDecrypt(unhex("4ef997456198dd78"), twice("0000000000000000")); });
    EXPECT_TRUE(result.empty());
    EXPECT_TRUE(contains(text, "blowfishDecrypt: EVP_DecryptFinal_ex failed, error: ")) << text;

    text = logged([&] { result = OpenSSL::blowfishDecrypt(crypt, std::vector<uint8_t>(15, 0x30)); });
    EXPECT_TRUE(result.empty());
    EXPECT_TRUE(contains(text, "blowfishDecrypt: key length failed: 15")) << text;

    text = logged([&] { result = OpenSSL::blowfishDecrypt(std::vector<uint8_t>(1032), key); });
    EXPECT_TRUE(result.empty());
    EXPECT_TRUE(contains(text, "blowfishDecrypt: crypt length failed: 1032")) << text;
}

namespace {

constexpr const char* uuid = "0f8fad5b-d9cb-469f-a165-70867728950e";
constexpr const char* uuidKey = "0f8fad5bd9cb469fa16570867728950e"; // its 32 characters are the key

struct DecodeCase {
    std::string name;
    Json::Value params;
    PasswordError error;
    std::string password;
    std::string message; // logged text ("" when nothing must be checked)
};

Json::Value request(const std::string& enc, const char* serverId = uuid) {
    Json::Value params(Json::objectValue);
    params["username"] = "alice";
    params["password:enc"] = enc;
    if (serverId) {
        params["server_id"] = serverId;
    }
    return params;
}

} // namespace

TEST(RequestPassword, DecodingFollowsTheTypeAfterAPrintableDecryption) {
    const auto secret = encrypt("secret12", uuidKey);
    const auto sixLetters = encrypt(std::string("abcdef\0\0", 8), uuidKey);
    const auto control = encrypt("\x01"
                                 "bcdefgh",
                                 uuidKey);
    const auto padded = encrypt("pass\x04\x04\x04\x04", uuidKey);
    const auto twelveBytes = secret + secret.substr(0, 8);
    const auto longKey = std::string(uuidKey) + "0123456789abcdef0123456789abcdef";
    const auto fifteen = std::string(uuidKey).substr(0, 15);

    const DecodeCase cases[] = {
        {"blowfish yields the decryption", request("blowfish:" + secret), PasswordError::None, "secret12",
         "vexaSessionRequest: type: `blowfish', crypt: `HIDDEN'"},
        {"zero padding is stripped", request("blowfish:" + sixLetters), PasswordError::None, "abcdef", ""},
        {"any unprintable padding is stripped", request("blowfish:" + padded), PasswordError::None, "pass", ""},
        {"plain yields the payload itself", request("plain:" + secret), PasswordError::None, secret, ""},
        {"clear yields the payload itself", request("clear:" + secret), PasswordError::None, secret, ""},
        {"key of more than 56 characters",
         request("blowfish:" + encrypt("longkey!", longKey.substr(0, 56)), longKey.c_str()), PasswordError::None,
         "longkey!", ""},
        {"first byte below 0x20", request("blowfish:" + control), PasswordError::DecryptEmpty, "",
         "vexaSessionRequest: decrypt empty, hexcrypt: `" + control + "', hexkey: `" + uuidKey + "'"},
        {"plain needs a printable decryption", request("plain:" + control), PasswordError::DecryptEmpty, "",
         "vexaSessionRequest: decrypt empty, hexcrypt: `" + control + "'"},
        {"type is checked after decryption", request("rot13:" + control), PasswordError::DecryptEmpty, "",
         "decrypt empty"},
        {"ciphertext of 12 bytes", request("blowfish:" + twelveBytes), PasswordError::DecryptEmpty, "",
         "blowfishDecryptString: crypt length failed: 12"},
        {"key of 15 bytes", request("blowfish:" + secret, fifteen.c_str()), PasswordError::DecryptEmpty, "",
         "blowfishDecryptString: key length failed: 15"},
        {"empty payload", request("blowfish:"), PasswordError::DecryptEmpty, "",
         "blowfishDecryptString: crypt length failed: 0"},
        {"no colon", request("blowfish"), PasswordError::UnknownEncoding, "",
         "vexaSessionRequest: unknown password enc: `blowfish'"},
        {"unknown type", request("rot13:" + secret), PasswordError::UnknownEncoding, "",
         "vexaSessionRequest: unknown password enc: `rot13'"},
        {"payload not hex", request("blowfish:zz12"), PasswordError::InvalidCrypt, "",
         "vexaSessionRequest: invalid format, hexcrypt: `zz12'"},
        {"hex checked before the type and the server id", request("rot13:zz", nullptr), PasswordError::InvalidCrypt, "",
         "invalid format, hexcrypt: `zz'"},
        {"no server id", request("blowfish:" + secret, nullptr), PasswordError::ServerIdMissing, "",
         "vexaSessionRequest: params failed, not found: `server_id'"},
        {"server id not hex", request("blowfish:" + secret, "host-name"), PasswordError::InvalidKey, "",
         "vexaSessionRequest: invalid format, hexkey: `hostname'"},
    };
    for (const auto& c : cases) {
        RequestPassword result;
        const auto text = logged([&] { result = decodeRequestPassword(JsonConfig(c.params)); });
        EXPECT_EQ(result.mode, AuthMode::PasswordEnc) << c.name;
        EXPECT_EQ(result.error, c.error) << c.name;
        EXPECT_EQ(result.password, c.password) << c.name;
        EXPECT_TRUE(contains(text, "vexaSessionRequest: auth mode: password:enc")) << c.name;
        EXPECT_TRUE(contains(text, c.message)) << c.name << ": " << text;
    }
}

TEST(RequestPassword, DecryptedPasswordIsNeverLogged) {
    const auto text = logged([] {
        const auto result = decodeRequestPassword(JsonConfig(request("blowfish:" + encrypt("Top$ecret", uuidKey))));
        EXPECT_EQ(result.password, "Top$ecret");
    });
    EXPECT_FALSE(contains(text, "Top$ecret")) << text;
    EXPECT_TRUE(contains(text, "HIDDEN")) << text;
}

TEST(RequestPassword, FirstPresentKeyChoosesTheMode) {
    Json::Value both = request("blowfish:" + encrypt("fromEnc!", uuidKey));
    both["password"] = "plain-text";
    both["transport_token"] = "token";
    Json::Value plain(Json::objectValue);
    plain["password"] = "plain-text";
    plain["transport_token"] = "token";
    Json::Value token(Json::objectValue);
    token["transport_token"] = "token";
    const Json::Value none(Json::objectValue);

    const std::tuple<Json::Value, AuthMode, std::string, std::string, const char*> cases[] = {
        {both, AuthMode::PasswordEnc, "fromEnc!", "", "auth mode: password:enc"},
        {plain, AuthMode::Password, "plain-text", "", "auth mode: password\n"},
        {token, AuthMode::TransportToken, "", "token", "auth mode: transport_token"},
        {none, AuthMode::None, "", "", ""},
    };
    for (const auto& [params, mode, password, transportToken, message] : cases) {
        RequestPassword result;
        const auto text = logged([&] { result = decodeRequestPassword(JsonConfig(params), "vexaSessionRequest"); });
        EXPECT_EQ(result.mode, mode) << message;
        EXPECT_TRUE(result.ok()) << message;
        EXPECT_EQ(result.password, password) << message;
        EXPECT_EQ(result.transportToken, transportToken) << message;
        EXPECT_TRUE(contains(text, message)) << text;
        if (mode == AuthMode::None) {
            EXPECT_EQ(text, "");
        }
    }
}

namespace {

template <typename T, void (*Free)(T*)>
struct Deleter {
    void operator()(T* object) const noexcept { Free(object); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using CertPtr = std::unique_ptr<X509, Deleter<X509, X509_free>>;

KeyPtr makeKey() {
    return KeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
}

void addExtension(X509* cert, X509* issuer, int nid, const char* value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    ASSERT_NE(ext, nullptr);
    X509_add_ext(cert, ext, -1);
    X509_EXTENSION_free(ext);
}

// A certificate for `name` signed by `signer` (itself when no issuer is given).
CertPtr makeCert(const char* name, EVP_PKEY* key, X509* issuer, EVP_PKEY* signer, bool ca, long serial) {
    CertPtr cert(X509_new());
    X509_set_version(cert.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 86400);
    X509_NAME* subject = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(name), -1, -1, 0);
    X509_set_issuer_name(cert.get(), issuer ? X509_get_subject_name(issuer) : subject);
    X509_set_pubkey(cert.get(), key);
    if (ca) {
        addExtension(cert.get(), issuer ? issuer : cert.get(), NID_basic_constraints, "critical,CA:TRUE");
        addExtension(cert.get(), issuer ? issuer : cert.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
    }
    X509_sign(cert.get(), signer, EVP_sha256());
    return cert;
}

std::string pemText(X509* cert) {
    BIO* bio = BIO_new(BIO_s_mem());
    PEM_write_bio_X509(bio, cert);
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    std::string text(data, static_cast<size_t>(size));
    BIO_free(bio);
    return text;
}

class Certificates : public ::testing::Test {
protected:
    void SetUp() override {
        std::string name = (fs::temp_directory_path() / "vexa-certs-XXXXXX").string();
        ASSERT_NE(::mkdtemp(name.data()), nullptr);
        dir = name;

        auto caKey = makeKey();
        auto leafKey = makeKey();
        auto otherKey = makeKey();
        auto ca = makeCert("Vexa Test CA", caKey.get(), nullptr, caKey.get(), true, 1);
        auto leaf = makeCert("alice", leafKey.get(), ca.get(), caKey.get(), false, 2);
        auto other = makeCert("Unrelated", otherKey.get(), nullptr, otherKey.get(), true, 3);

        caFile = write("ca.pem", pemText(ca.get()));
        otherFile = write("other.pem", pemText(other.get()));
        notPem = write("not.pem", "no certificate here\n");
        leafPem = pemText(leaf.get());
        otherPem = pemText(other.get());
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }

    std::string write(const char* name, const std::string& content) const {
        std::ofstream(dir / name, std::ios::binary) << content;
        return (dir / name).string();
    }

    fs::path dir;
    std::string caFile, otherFile, notPem, leafPem, otherPem;
};

} // namespace

TEST_F(Certificates, ChainCheckAcceptsOnlyCertificatesIssuedByAConfiguredCa) {
    const std::tuple<const char*, std::string, std::list<std::string>, bool, const char*> cases[] = {
        {"leaf under its CA", leafPem, {caFile}, true, ""},
        {"leaf, CA among others", leafPem, {otherFile, caFile}, true, ""},
        {"leaf under a foreign CA",
         leafPem,
         {otherFile},
         false,
         "check: X509_verify_cert failed, error: unable to get local issuer certificate"},
        {"unrelated self-signed", otherPem, {caFile}, false, "check: X509_verify_cert failed, error: self-signed"},
        {"empty CA list", leafPem, {}, false, "check: ca certs list is empty"},
        {"empty CA list, no certificate at all", "", {}, false, "check: ca certs list is empty"},
    };
    for (const auto& [name, pem, cas, expected, message] : cases) {
        bool result = !expected;
        const auto text = logged([&] { result = Openssl::checkCertificateChain("check", pem, cas); });
        EXPECT_EQ(result, expected) << name;
        EXPECT_TRUE(contains(text, message)) << name << ": " << text;
    }
}

TEST_F(Certificates, UnreadableCaFileOrClientTextThrowsAfterLogging) {
    const auto missing = (dir / "missing.pem").string();
    const std::tuple<std::string, std::list<std::string>, const char*, std::string> cases[] = {
        {leafPem,
         {caFile, missing},
         "CertificateFile",
         "CertificateFile: BIO_new_file failed, file: `" + missing + "'"},
        {leafPem, {notPem}, "CertificateFile", "CertificateFile: PEM_read_bio_X509 failed, error: "},
        {"-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n",
         {caFile},
         "CertificatePem",
         "CertificatePem: PEM_read_bio_X509 failed, error: "},
        {"", {caFile}, "CertificatePem", "CertificatePem: PEM_read_bio_X509 failed, error: "},
    };
    for (const auto& [pem, cas, what, message] : cases) {
        std::string thrown;
        const auto text = logged([&] {
            try {
                Openssl::checkCertificateChain("check", pem, cas);
            } catch (const std::runtime_error& err) {
                thrown = err.what();
            }
        });
        EXPECT_EQ(thrown, what) << message;
        EXPECT_TRUE(contains(text, message)) << text;
    }
}
