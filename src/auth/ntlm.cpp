#include "ntlm.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include <mhash.h>

#include "common/utils.h"
#include "session/session.h"

namespace Vexa {

namespace {

// libmhash counts sizes in 32 bits: longer input is fed in pieces.
void feed(MHASH td, const void* data, size_t size) {
    constexpr size_t chunk = std::numeric_limits<mutils_word32>::max();
    const auto* bytes = static_cast<const uint8_t*>(data);
    while (size > 0) {
        const size_t piece = std::min(size, chunk);
        mhash(td, bytes, static_cast<mutils_word32>(piece));
        bytes += piece;
        size -= piece;
    }
}

// UTF-16LE bytes of a UTF-8 text: 2 bytes per UTF-16 unit, low byte first.
std::vector<uint8_t> utf16le(const std::string& text) {
    const auto units = Utils::string2unicode(text);
    std::vector<uint8_t> result;
    result.reserve(units.size() * 2);
    for (const char16_t unit : units) {
        result.push_back(static_cast<uint8_t>(unit & 0xff));
        result.push_back(static_cast<uint8_t>(unit >> 8));
    }
    return result;
}

std::string hex(const std::vector<uint8_t>& bytes) {
    return Utils::hexRange(bytes.data(), bytes.data() + bytes.size());
}

std::vector<uint8_t> ntHash(const std::string& password) {
    const auto unicode = utf16le(password);
    return MHash::Digest_MD4(unicode.data(), unicode.size());
}

} // namespace

namespace MHash {

std::vector<uint8_t> Digest_MD4(const void* data, size_t size) {
    MHASH td = mhash_init(MHASH_MD4);
    if (td == MHASH_FAILED) {
        throw std::runtime_error("Digest_MD4");
    }
    feed(td, data, size);
    std::vector<uint8_t> digest(mhash_get_block_size(MHASH_MD4));
    mhash_deinit(td, digest.data());
    return digest;
}

std::vector<uint8_t> HMAC_MD5(const void* data, size_t size, const uint8_t* key, size_t keySize) {
    if (keySize > std::numeric_limits<mutils_word32>::max()) {
        throw std::runtime_error("HMAC_MD5");
    }
    // libmhash takes the key through a non-const pointer but only reads it.
    MHASH td = mhash_hmac_init(MHASH_MD5, const_cast<uint8_t*>(key), static_cast<mutils_word32>(keySize),
                               mhash_get_hash_pblock(MHASH_MD5));
    if (td == MHASH_FAILED) {
        throw std::runtime_error("HMAC_MD5");
    }
    feed(td, data, size);
    std::vector<uint8_t> digest(mhash_get_block_size(MHASH_MD5));
    mhash_hmac_deinit(td, digest.data());
    return digest;
}

} // namespace MHash

namespace WinprCompat {

std::string NTLMv1(const std::string& password) {
    return hex(ntHash(password));
}

std::string NTLMv2(const std::string& user, const std::string& domain, const std::string& password) {
    const auto key = ntHash(password);
    const auto data = utf16le(Utils::stringUpper(user) + domain);
    return hex(MHash::HMAC_MD5(data.data(), data.size(), key.data(), key.size()));
}

} // namespace WinprCompat

std::string ntlmHashLine(const std::string& user, const std::string& domain, const std::string& password,
                         bool useNtlmv2) {
    std::string line;
    line.append(user).append(":").append(domain).append("::");
    line.append(useNtlmv2 ? WinprCompat::NTLMv2(user, domain, password) : WinprCompat::NTLMv1(password));
    return line.append(":::");
}

bool vexaCreateNTLMhashFile(const std::shared_ptr<Session>& session, const std::string& password, bool useNtlmv2) {
    if (!session || !session->user) {
        return true;
    }
    auto& user = *session->user;
    user.ntlm = ntlmHashLine(user.name, user.domain, password, useNtlmv2);
    return true;
}

} // namespace Vexa
