// The low-level Blowfish interface builds the test ciphertexts; it is deprecated in OpenSSL 3.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <unistd.h>

#include <gtest/gtest.h>

#include "test_support.h"
#include <openssl/blowfish.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "auth/credentials.h"
#include "auth/openssl.h"
#include "common/logger.h"
#include "common/utils.h"

using namespace Vexa;
using namespace TestSupport;
using Utils::hexstr2bytes;
namespace fs = std::filesystem;

namespace {

std::string hex(const std::vector<uint8_t>& data) {
    return Utils::hexRange(data.data(), data.data() + data.size());
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

} // namespace

TEST(Hexstr2bytes, TakesPairsOfDigitsAndWarnsAboutAnythingElse) {
    const std::pair<std::string, std::vector<uint8_t>> cases[] = {
        {"00ff7A", {0x00, 0xff, 0x7a}}, {"abc", {0xab, 0x0c}}, {"12zz", {}}, {"0x12", {}}, {"+1", {}},
    };
    for (const auto& [text, expected] : cases) {
        std::vector<uint8_t> result{1};
        const auto log = logged([&] { result = hexstr2bytes(text); });
        EXPECT_EQ(result, expected) << text;
        EXPECT_EQ(contains(log, "hexstr2bytes: failed, strhex: `" + text + "'"), expected.empty()) << log;
    }
}

TEST(Blowfish, DecryptionsMatchPublishedEcbVectors) {
    // Eric Young's vectors (key, ciphertext, plaintext), the plaintext's printable prefix, the plaintext unpadded.
    const std::tuple<const char*, const char*, const char*, const char*, const char*> cases[] = {
        {"3000000000000000", "7d856f9a613063f2", "1000000000000001", "", "10000000000000"},
        {"3849674c2602319e", "a25e7856cf2651eb", "51454b582ddf440a", "QEKX-", ""},
        {"1c587f1c13924fef", "55cb3774d13ef201", "305532286d6f295a", "0U2(mo)Z", ""},
    };
    for (const auto& [key, crypt, plain, printable, unpadded] : cases) {
        // An 8-byte key schedules exactly as the same key written twice, which the 16-byte minimums need.
        const auto key8 = hexstr2bytes(key);
        auto key16 = key8;
        key16.insert(key16.end(), key8.begin(), key8.end());
        EXPECT_EQ(hex(OpenSSL::blowfishDecryptBlocks(hexstr2bytes(crypt), key8)), plain) << key;
        EXPECT_EQ(OpenSSL::blowfishDecryptString(hexstr2bytes(crypt), key16), printable) << key;
        // The cipher interface takes the first 16 key bytes and refuses bad padding.
        key16.resize(24, 0xa5);
        EXPECT_EQ(hex(OpenSSL::blowfishDecrypt(hexstr2bytes(crypt), key16)), unpadded) << key;
    }
}

namespace {

constexpr const char* uuid = "0f8fad5b-d9cb-469f-a165-70867728950e";
constexpr const char* uuidKey = "0f8fad5bd9cb469fa16570867728950e"; // its 32 characters are the key

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
    using enum PasswordError;
    // Two blocks, zero-padded: the blocks are decrypted on their own and the padding is stripped.
    const auto secret = encrypt("Top$ecret12", uuidKey);
    const auto control = encrypt("\001bcdefgh", uuidKey);
    // In the order of the checks: the colon, the payload's digits, the server id, the decryption, the type.
    const std::tuple<Json::Value, PasswordError, std::string, std::string> cases[] = {
        {request("blowfish"), UnknownEncoding, "", "vexaSessionRequest: unknown password enc: `blowfish'"},
        {request("blowfish:zz12"), InvalidCrypt, "", "vexaSessionRequest: invalid format, hexcrypt: `zz12'"},
        {request("rot13:zz", nullptr), InvalidCrypt, "", "invalid format, hexcrypt: `zz'"},
        {request("blowfish:" + secret, nullptr), ServerIdMissing, "", "params failed, not found: `server_id'"},
        {request("blowfish:" + secret, "host-name"), InvalidKey, "", "invalid format, hexkey: `hostname'"},
        {request("blowfish:" + secret.substr(0, 24)), DecryptEmpty, "", "crypt length failed: 12"},
        {request("blowfish:" + secret, std::string(uuidKey, 15).c_str()), DecryptEmpty, "", "key length failed: 15"},
        {request("blowfish:" + control), DecryptEmpty, "",
         "decrypt empty, hexcrypt: `" + control + "', hexkey: `" + uuidKey + "'"},
        {request("plain:" + control), DecryptEmpty, "", "decrypt empty, hexcrypt: `" + control + "'"},
        {request("rot13:" + control), DecryptEmpty, "", "decrypt empty, hexcrypt: `" + control + "'"},
        {request("rot13:" + secret), UnknownEncoding, "", "unknown password enc: `rot13'"},
        {request("blowfish:" + secret), None, "Top$ecret12", "type: `blowfish', crypt: `HIDDEN'"},
        {request("plain:" + secret), None, secret, ""},
        {request("clear:" + secret), None, secret, ""},
    };
    for (const auto& [params, error, password, message] : cases) {
        RequestPassword result;
        const auto text = logged([&] { result = decodeRequestPassword(JsonConfig(params)); });
        EXPECT_EQ(result.mode, AuthMode::PasswordEnc) << message;
        EXPECT_EQ(result.error, error) << message;
        EXPECT_EQ(result.password, password) << message;
        EXPECT_TRUE(contains(text, "vexaSessionRequest: auth mode: password:enc")) << message;
        EXPECT_TRUE(contains(text, message)) << text;
        // The password itself is never logged.
        EXPECT_TRUE(password.empty() || !contains(text, password)) << text;
    }
}

namespace {

// A certificate with a new key, signed by `issuer`; a self-signed certificate authority without one.
struct Cert {
    std::shared_ptr<EVP_PKEY> key{EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), EVP_PKEY_free};
    std::shared_ptr<X509> cert{X509_new(), X509_free};
    std::string pem;

    Cert(const char* name, const Cert* issuer = nullptr) {
        X509* x = cert.get();
        X509_set_version(x, X509_VERSION_3);
        X509_gmtime_adj(X509_getm_notBefore(x), -3600);
        X509_gmtime_adj(X509_getm_notAfter(x), 86400);
        X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(name), -1, -1, 0);
        X509_set_issuer_name(x, X509_get_subject_name(issuer ? issuer->cert.get() : x));
        X509_set_pubkey(x, key.get());
        if (!issuer) {
            X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, nullptr, NID_basic_constraints, "critical,CA:TRUE");
            X509_add_ext(x, ext, -1);
            X509_EXTENSION_free(ext);
        }
        X509_sign(x, (issuer ? issuer : this)->key.get(), EVP_sha256());
        std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
        PEM_write_bio_X509(bio.get(), x);
        char* data = nullptr;
        const long size = BIO_get_mem_data(bio.get(), &data);
        pem.assign(data, static_cast<size_t>(size));
    }
};

} // namespace

TEST(Certificates, ChainCheckAcceptsOnlyCertificatesIssuedByAConfiguredCa) {
    const Cert ca("Vexa Test CA");
    const Cert leaf("alice", &ca);
    const Cert unrelated("Unrelated");
    const auto caFile = fs::temp_directory_path() / ("vexa-ca-" + std::to_string(::getpid()) + ".pem");
    std::ofstream(caFile) << ca.pem;
    const std::tuple<const char*, std::string, std::list<std::string>, bool, const char*> cases[] = {
        {"leaf under its CA", leaf.pem, {caFile}, true, ""},
        {"unrelated self-signed", unrelated.pem, {caFile}, false, "check: X509_verify_cert failed, error: self-signed"},
        {"empty CA list", leaf.pem, {}, false, "check: ca certs list is empty"},
    };
    for (const auto& [name, pem, cas, expected, message] : cases) {
        bool result = !expected;
        const auto text = logged([&] { result = Openssl::checkCertificateChain("check", pem, cas); });
        EXPECT_EQ(result, expected) << name;
        EXPECT_TRUE(contains(text, message)) << name << ": " << text;
    }
    fs::remove(caFile);
}
