// Hostile credentials: hexadecimal text, session requests carrying an enciphered password, and ciphertexts
// with keys of any length must never crash, leak or read out of bounds. The same input feeds all three; its
// first byte also splits it into a key and a ciphertext for the Blowfish decryptions. Conversion errors of the
// JSON library are the documented answer to keys of the wrong type and are allowed to throw.

#include <algorithm>
#include <cstdint>
#include <exception>
#include <string_view>
#include <vector>

#include "auth/credentials.h"
#include "auth/openssl.h"
#include "common/json_config.h"
#include "common/logger.h"
#include "common/utils.h"

using namespace Vexa;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Syslog::setDebugLevel(DebugLevel::Silent);
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    // Even-length text that converted is given back by hexRange, in lower case.
    const auto bytes = Utils::hexstr2bytes(text);
    if (!bytes.empty() && text.size() % 2 == 0 &&
        Utils::hexRange(bytes.data(), bytes.data() + bytes.size()) != Utils::stringLower(text)) {
        __builtin_trap();
    }

    // A failed decoding never hands out a password.
    if (const JsonConfigString params(text); params.isValid()) {
        try {
            const auto result = decodeRequestPassword(params);
            if (!result.ok() && !result.password.empty()) {
                __builtin_trap();
            }
        } catch (const std::exception&) {
        }
    }

    // The decryptions never give more than the ciphertext, and the string only printable text.
    if (size == 0) {
        return 0;
    }
    const size_t keyLength = std::min<size_t>(data[0] % 72, size - 1);
    const std::vector<uint8_t> key(data + 1, data + 1 + keyLength);
    const std::vector<uint8_t> crypt(data + 1 + keyLength, data + size);
    const auto plain = OpenSSL::blowfishDecryptString(crypt, key);
    if (plain.size() > crypt.size() ||
        std::any_of(plain.begin(), plain.end(), [](char c) { return c < 0x20 || c > 0x7e; }) ||
        OpenSSL::blowfishDecrypt(crypt, key).size() > crypt.size()) {
        __builtin_trap();
    }
    return 0;
}
