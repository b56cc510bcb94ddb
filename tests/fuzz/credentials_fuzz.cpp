// Hostile credentials: hexadecimal text, session requests carrying an enciphered password, and ciphertexts
// with keys of any length must never crash, leak or read out of bounds. The same input feeds all three; its
// first byte also splits it into a key and a ciphertext for the Blowfish decryptions. Conversion errors of the
// JSON library are the documented answer to keys of the wrong type and are allowed to throw.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string_view>
#include <vector>

#include "auth/credentials.h"
#include "auth/openssl.h"
#include "common/json_config.h"
#include "common/logger.h"
#include "common/utils.h"

namespace {

void hexText(std::string_view text) {
    const auto bytes = Vexa::Utils::hexstr2bytes(text);
    if (bytes.size() > text.size() / 2 + 1) {
        __builtin_trap();
    }
    // Even-length text that converted is given back by hexRange, in lower case.
    if (!bytes.empty() && text.size() % 2 == 0 &&
        Vexa::Utils::hexRange(bytes.data(), bytes.data() + bytes.size()) != Vexa::Utils::stringLower(text)) {
        __builtin_trap();
    }
}

void request(std::string_view text) {
    const Vexa::JsonConfigString params(text);
    if (!params.isValid()) {
        return;
    }
    try {
        const auto result = Vexa::decodeRequestPassword(params);
        if (!result.ok() && !result.password.empty()) {
            __builtin_trap();
        }
    } catch (const std::exception&) {
    }
}

void ciphertext(const uint8_t* data, size_t size) {
    if (size == 0) {
        return;
    }
    const size_t keyLength = std::min<size_t>(data[0] % 72, size - 1);
    const std::vector<uint8_t> key(data + 1, data + 1 + keyLength);
    const std::vector<uint8_t> crypt(data + 1 + keyLength, data + size);
    const auto plain = Vexa::OpenSSL::blowfishDecryptString(crypt, key);
    if (plain.size() > crypt.size() ||
        std::any_of(plain.begin(), plain.end(), [](char c) { return c < 0x20 || c > 0x7e; })) {
        __builtin_trap();
    }
    if (Vexa::OpenSSL::blowfishDecrypt(crypt, key).size() > crypt.size()) {
        __builtin_trap();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Vexa::Syslog::setDebugLevel(Vexa::DebugLevel::Silent);
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    hexText(text);
    request(text);
    ciphertext(data, size);
    return 0;
}
