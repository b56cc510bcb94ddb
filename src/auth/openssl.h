#pragma once

// OpenSSL pieces of the credential checks: Blowfish decryption of the passwords that session requests carry,
// and the chain check of client certificates against the configured certificate authorities.
// The functions are safe from any thread: each call builds and frees its own cipher, store and context
// objects; the provider that serves Blowfish to the high-level interface is loaded once, on first use.

#include <cstdint>
#include <filesystem>
#include <list>
#include <string>
#include <string_view>
#include <vector>

#include <openssl/types.h>

namespace Vexa::OpenSSL {

// Blowfish in ECB mode keyed by every byte of `key` up to the cipher's limit of 56, each 8-byte block decrypted
// on its own; nothing is stripped. Empty when the key is empty or the ciphertext is not whole blocks.
std::vector<uint8_t> blowfishDecryptBlocks(const std::vector<uint8_t>& crypt, const std::vector<uint8_t>& key);

// The plaintext of blowfishDecryptBlocks up to its first byte that is not printable ASCII, which strips any
// padding. Empty (logged) for a key shorter than 16 bytes or a ciphertext that is empty or not whole blocks.
std::string blowfishDecryptString(const std::vector<uint8_t>& crypt, const std::vector<uint8_t>& key);

// The same cipher through the high-level interface: Blowfish ECB with the first 16 bytes of the key, standard
// block padding checked and removed. Empty (logged) for a key shorter than 16 bytes, a ciphertext longer than
// 1024 bytes, bad padding or any library failure.
std::vector<uint8_t> blowfishDecrypt(const std::vector<uint8_t>& crypt, const std::vector<uint8_t>& key);

} // namespace Vexa::OpenSSL

namespace Vexa::Openssl {

// One X.509 certificate read from a PEM file; owns it. Throws std::runtime_error("CertificateFile") when the
// file cannot be opened or holds no PEM certificate (logged).
class CertificateFile {
public:
    explicit CertificateFile(const std::filesystem::path& path);
    ~CertificateFile();

    CertificateFile(const CertificateFile&) = delete;
    CertificateFile& operator=(const CertificateFile&) = delete;

    X509* get() const noexcept { return cert; }

private:
    X509* cert = nullptr;
};

// One X.509 certificate read from PEM text; owns it. Throws std::runtime_error("CertificatePem") when the text
// holds no PEM certificate (logged).
class CertificatePem {
public:
    explicit CertificatePem(std::string_view pem);
    ~CertificatePem();

    CertificatePem(const CertificatePem&) = delete;
    CertificatePem& operator=(const CertificatePem&) = delete;

    X509* get() const noexcept { return cert; }

private:
    X509* cert = nullptr;
};

// Whether the PEM certificate chains up to one of the certificates in the CA files (one PEM certificate each).
// Only the chain is verified: no name, key usage or revocation check. False (logged under `caller`) when the
// list is empty or verification fails; a CA file or a client text that cannot be read throws, as above.
bool checkCertificateChain(const char* caller, std::string_view pem, const std::list<std::string>& caFiles);

} // namespace Vexa::Openssl
