// Hostile X authority data: the reader of the first entry must never read outside its input, and must hand
// back a cookie only when the input holds a whole entry. The same bytes, split into a host and a cookie and
// written as an entry, must read back as that cookie.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>
#include <vector>

#include "start/xserver.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 0xffff) {
        return 0;
    }
    const std::span<const uint8_t> input(data, size);

    if (const auto cookie = Vexa::Utils::xauthCookie(input)) {
        // Family, three length-prefixed fields and the cookie's length come before the cookie.
        if (cookie->size() + 10 > size) {
            std::abort();
        }
    }

    const size_t split = size ? data[0] % (size + 1) : 0;
    const std::string_view host(reinterpret_cast<const char*>(data), split);
    const std::vector<uint8_t> cookie(data + split, data + size);
    const auto entry = Vexa::xauthEntry(host, size, cookie);
    const auto back = Vexa::Utils::xauthCookie(entry);
    if (!back || *back != cookie) {
        std::abort();
    }
    return 0;
}
