#include <fstream>

#include <gtest/gtest.h>

#include "test_support.h"
#include <openssl/pem.h>

#include "auth/credentials.h"
#include "auth/openssl.h"
#include "common/utils.h"

using namespace Vexa;
using namespace TestSupport;
using Utils::hexstr2bytes;

namespace {

std::string hex(const std::vector<uint8_t>& data) {
    return Utils::hexRange(data.data(), data.data() + data.size());
}

constexpr const char* uuid = "0f8fad5b-d9cb-469f-a165-70867728950e";
constexpr const char* uuidKey = "0f8fad5bd9cb469fa16570867728950e"; // its 32 characters are the key
// Enciphered under uuidKey: "Top$ecret12" zero-padded to two blocks (each decrypted on its own, the padding
// stripped), and the unprintable "\001bcdefgh".
const std::string secret = "3d81b6589dc419f3da83474f759dc41d";
const std::string control = "ff778384126e72e3";

Json::Value request(const std::string& enc, const char* serverId = uuid) {
    Json::Value params(Json::objectValue);
    params["password:enc"] = enc;
    if (serverId) {
        params["server_id"] = serverId;
    }
    return params;
}

} // namespace

TEST(Blowfish, DecryptionsMatchPublishedEcbVectors) {
    // Eric Young's vectors (key, ciphertext, plaintext) and the plaintext's printable prefix.
    const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
        {"3000000000000000", "7d856f9a613063f2", "1000000000000001", ""},
        {"3849674c2602319e", "a25e7856cf2651eb", "51454b582ddf440a", "QEKX-"},
        {"1c587f1c13924fef", "55cb3774d13ef201", "305532286d6f295a", "0U2(mo)Z"},
    };
    for (const auto& [key, crypt, plain, printable] : cases) {
        // An 8-byte key schedules exactly as the same key written twice, which the 16-byte minimum needs.
        const auto key8 = hexstr2bytes(key);
        auto key16 = key8;
        key16.insert(key16.end(), key8.begin(), key8.end());
        EXPECT_EQ(hex(OpenSSL::blowfishDecryptBlocks(hexstr2bytes(crypt), key8)), plain) << key;
        EXPECT_EQ(OpenSSL::blowfishDecryptString(hexstr2bytes(crypt), key16), printable) << key;
    }
}

TEST(RequestPassword, DecodingFollowsTheTypeAfterAPrintableDecryption) {
    using enum PasswordError;
    // In the order of the checks: the colon, the payload's digits, the lengths, the decryption, the type.
    const std::tuple<Json::Value, PasswordError, std::string, std::string> cases[] = {
        {request("blowfish"), UnknownEncoding, "", "vexaSessionRequest: unknown password enc: `blowfish'"},
        {request("rot13:zz", nullptr), InvalidCrypt, "", "vexaSessionRequest: invalid format, hexcrypt: `zz'"},
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
        EXPECT_EQ(result.error, error) << message;
        EXPECT_EQ(result.password, password) << message;
        EXPECT_TRUE(contains(text, "vexaSessionRequest: auth mode: password:enc")) << message;
        EXPECT_TRUE(contains(text, message)) << text;
        // The password itself is never logged.
        EXPECT_TRUE(password.empty() || !contains(text, password)) << text;
    }
}

namespace {

// A version 1 certificate with a new key, signed by `issuer`, else self-signed (a certificate authority).
struct Cert {
    std::shared_ptr<EVP_PKEY> key{EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), EVP_PKEY_free};
    std::shared_ptr<X509> cert{X509_new(), X509_free};
    std::string pem;

    explicit Cert(const char* name, const Cert* issuer = nullptr) {
        X509* x = cert.get();
        X509_gmtime_adj(X509_getm_notBefore(x), -3600);
        X509_gmtime_adj(X509_getm_notAfter(x), 86400);
        X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(name), -1, -1, 0);
        X509_set_issuer_name(x, X509_get_subject_name(issuer ? issuer->cert.get() : x));
        X509_set_pubkey(x, key.get());
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
    const TempDir dir;
    const auto caFile = dir.path / "ca.pem";
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
}
