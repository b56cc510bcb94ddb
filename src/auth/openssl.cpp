// The low-level Blowfish interface is deprecated in OpenSSL 3 but is the one that takes keys of any length up to
// 56 bytes; the high-level interface serves Blowfish only through the legacy provider.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "openssl.h"

#include <algorithm>
#include <climits>
#include <memory>
#include <mutex>
#include <stdexcept>

#include <openssl/blowfish.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/provider.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include "common/logger.h"

namespace Vexa {

namespace {

constexpr size_t minKeyLength = 16;
constexpr size_t maxKeyLength = 56;
constexpr size_t maxEvpCrypt = 1024;

template <typename T, void (*Free)(T*)>
struct Deleter {
    void operator()(T* object) const noexcept { Free(object); }
};

using BioPtr = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;
using StorePtr = std::unique_ptr<X509_STORE, Deleter<X509_STORE, X509_STORE_free>>;
using StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, Deleter<X509_STORE_CTX, X509_STORE_CTX_free>>;
using CipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, Deleter<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>>;
using CipherPtr = std::unique_ptr<EVP_CIPHER, Deleter<EVP_CIPHER, EVP_CIPHER_free>>;
using LibCtxPtr = std::unique_ptr<OSSL_LIB_CTX, Deleter<OSSL_LIB_CTX, OSSL_LIB_CTX_free>>;

struct ProviderUnload {
    void operator()(OSSL_PROVIDER* provider) const noexcept { OSSL_PROVIDER_unload(provider); }
};
using ProviderPtr = std::unique_ptr<OSSL_PROVIDER, ProviderUnload>;

// Text of the most recent error queued on this thread; the queue is emptied so that it cannot leak into the
// next report.
std::string lastErrorText() {
    char buf[256];
    ERR_error_string_n(ERR_peek_last_error(), buf, sizeof(buf));
    ERR_clear_error();
    return buf;
}

// Blowfish for the high-level interface, from the legacy provider loaded into a library context of our own, so
// that the process-wide default context keeps its providers. Built once; its members are only read after.
class LegacyBlowfish {
public:
    static const EVP_CIPHER* ecb() {
        static const LegacyBlowfish instance;
        return instance.cipher.get();
    }

private:
    LegacyBlowfish() {
        context.reset(OSSL_LIB_CTX_new());
        if (!context) {
            Syslog::error("%s: %s failed, error: %s", "blowfishDecrypt", "OSSL_LIB_CTX_new", lastErrorText().c_str());
            return;
        }
        legacy.reset(OSSL_PROVIDER_load(context.get(), "legacy"));
        if (!legacy) {
            Syslog::error("%s: %s failed, error: %s", "blowfishDecrypt", "OSSL_PROVIDER_load", lastErrorText().c_str());
            return;
        }
        cipher.reset(EVP_CIPHER_fetch(context.get(), "BF-ECB", nullptr));
        if (!cipher) {
            Syslog::error("%s: %s failed, error: %s", "blowfishDecrypt", "EVP_CIPHER_fetch", lastErrorText().c_str());
        }
    }

    // Declared in the order of construction; destroyed in reverse.
    LibCtxPtr context;
    ProviderPtr legacy;
    CipherPtr cipher;
};

bool printableAscii(uint8_t byte) {
    return byte >= 0x20 && byte <= 0x7e;
}

} // namespace

namespace OpenSSL {

std::vector<uint8_t> blowfishDecryptBlocks(const std::vector<uint8_t>& crypt, const std::vector<uint8_t>& key) {
    if (key.empty() || crypt.size() % BF_BLOCK != 0) {
        return {};
    }
    BF_KEY schedule;
    BF_set_key(&schedule, static_cast<int>(std::min(key.size(), maxKeyLength)), key.data());
    std::vector<uint8_t> plain(crypt.size());
    for (size_t pos = 0; pos < crypt.size(); pos += BF_BLOCK) {
        BF_ecb_encrypt(crypt.data() + pos, plain.data() + pos, &schedule, BF_DECRYPT);
    }
    OPENSSL_cleanse(&schedule, sizeof(schedule));
    return plain;
}

std::string blowfishDecryptString(const std::vector<uint8_t>& crypt, const std::vector<uint8_t>& key) {
    if (key.size() < minKeyLength) {
        Syslog::error("%s: key length failed: %u", "blowfishDecryptString", static_cast<unsigned>(key.size()));
        return {};
    }
    if (crypt.empty() || crypt.size() % BF_BLOCK != 0) {
        Syslog::error("%s: crypt length failed: %u", "blowfishDecryptString", static_cast<unsigned>(crypt.size()));
        return {};
    }
    auto plain = blowfishDecryptBlocks(crypt, key);
    const auto end = std::find_if_not(plain.begin(), plain.end(), printableAscii);
    std::string result(plain.begin(), end);
    OPENSSL_cleanse(plain.data(), plain.size());
    return result;
}

std::vector<uint8_t> blowfishDecrypt(const std::vector<uint8_t>& crypt, const std::vector<uint8_t>& key) {
    if (key.size() < minKeyLength) {
        Syslog::error("%s: key length failed: %u", "blowfishDecrypt", static_cast<unsigned>(key.size()));
        return {};
    }
    if (crypt.size() > maxEvpCrypt) {
        Syslog::error("%s: crypt length failed: %u", "blowfishDecrypt", static_cast<unsigned>(crypt.size()));
        return {};
    }
    const EVP_CIPHER* cipher = LegacyBlowfish::ecb();
    if (!cipher) {
        Syslog::error("%s: %s failed", "blowfishDecrypt", "EVP_CIPHER_fetch");
        return {};
    }
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    if (!ctx) {
        Syslog::error("%s: %s failed", "blowfishDecrypt", "EVP_CIPHER_CTX_new");
        return {};
    }
    if (EVP_DecryptInit_ex(ctx.get(), cipher, nullptr, key.data(), nullptr) != 1) {
        Syslog::error("%s: %s failed, error: %s", "blowfishDecrypt", "EVP_DecryptInit_ex", lastErrorText().c_str());
        return {};
    }
    std::vector<uint8_t> plain(maxEvpCrypt);
    int length = 0;
    if (EVP_DecryptUpdate(ctx.get(), plain.data(), &length, crypt.data(), static_cast<int>(crypt.size())) != 1) {
        Syslog::error("%s: %s failed, error: %s", "blowfishDecrypt", "EVP_DecryptUpdate", lastErrorText().c_str());
        return {};
    }
    int last = 0;
    if (EVP_DecryptFinal_ex(ctx.get(), plain.data() + length, &last) != 1) {
        Syslog::error("%s: %s failed, error: %s", "blowfishDecrypt", "EVP_DecryptFinal_ex", lastErrorText().c_str());
        OPENSSL_cleanse(plain.data(), plain.size());
        return {};
    }
    plain.resize(static_cast<size_t>(length) + static_cast<size_t>(last));
    return plain;
}

} // namespace OpenSSL

namespace Openssl {

namespace {

// One PEM certificate from `bio`; `owner` names the class, `label` and `source` say where the text came from.
// Each failure is logged and thrown with the owner's name.
X509* readCertificate(BioPtr bio, const char* owner, const char* opener, const char* label, const char* source) {
    if (!bio) {
        ERR_clear_error();
        Syslog::error("%s: %s failed, %s: `%s'", owner, opener, label, source);
        throw std::runtime_error(owner);
    }
    X509* cert = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr);
    if (!cert) {
        Syslog::error("%s: %s failed, error: %s, %s: `%s'", owner, "PEM_read_bio_X509", lastErrorText().c_str(), label,
                      source);
        throw std::runtime_error(owner);
    }
    return cert;
}

} // namespace

CertificateFile::CertificateFile(const std::filesystem::path& path)
    : cert(readCertificate(BioPtr(BIO_new_file(path.c_str(), "r")), "CertificateFile", "BIO_new_file", "file",
                           path.c_str())) {}

CertificateFile::~CertificateFile() {
    X509_free(cert);
}

CertificatePem::CertificatePem(std::string_view pem) {
    const std::string text(pem);
    BioPtr bio(text.size() <= INT_MAX ? BIO_new_mem_buf(text.data(), static_cast<int>(text.size())) : nullptr);
    cert = readCertificate(std::move(bio), "CertificatePem", "BIO_new_mem_buf", "pem", text.c_str());
}

CertificatePem::~CertificatePem() {
    X509_free(cert);
}

bool checkCertificateChain(const char* caller, std::string_view pem, const std::list<std::string>& caFiles) {
    ERR_clear_error();
    StorePtr store(X509_STORE_new());
    if (!store) {
        Syslog::error("%s: %s failed", caller, "X509_STORE_new");
        return false;
    }
    for (const auto& path : caFiles) {
        // The store takes its own reference; the file's certificate is freed at the end of the iteration.
        const CertificateFile ca(path);
        if (X509_STORE_add_cert(store.get(), ca.get()) != 1) {
            Syslog::warning("%s: %s failed, error: %s", caller, "X509_STORE_add_cert", lastErrorText().c_str());
        }
    }
    if (caFiles.empty()) {
        Syslog::error("%s: ca certs list is empty", caller);
        return false;
    }
    const CertificatePem client(pem);
    StoreCtxPtr ctx(X509_STORE_CTX_new());
    if (!ctx) {
        Syslog::error("%s: %s failed", caller, "X509_STORE_CTX_new");
        return false;
    }
    if (X509_STORE_CTX_init(ctx.get(), store.get(), client.get(), nullptr) != 1) {
        Syslog::error("%s: %s failed, error: %s", caller, "X509_STORE_CTX_init", lastErrorText().c_str());
        return false;
    }
    if (X509_verify_cert(ctx.get()) == 1) {
        return true;
    }
    // Verification reports through the context, not the error queue.
    Syslog::error("%s: %s failed, error: %s", caller, "X509_verify_cert",
                  X509_verify_cert_error_string(X509_STORE_CTX_get_error(ctx.get())));
    ERR_clear_error();
    return false;
}

} // namespace Openssl

} // namespace Vexa
