// Hostile clipboard text: the UTF-16 a client sends (and the UTF-8 an X application offers) must never crash or
// read out of bounds; every conversion keeps to its limit and yields well-formed text, and well-formed text
// survives the way there and back unchanged up to line ends.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "rdp/clipboard_text.h"

using namespace Vexa::Rdp;

namespace {

// Well-formed UTF-8 without surrogates or overlong forms.
bool wellFormed(std::string_view text) {
    for (size_t i = 0; i < text.size();) {
        const auto lead = static_cast<uint8_t>(text[i]);
        size_t length = lead < 0x80             ? 1
                        : (lead & 0xe0) == 0xc0 ? 2
                        : (lead & 0xf0) == 0xe0 ? 3
                        : (lead & 0xf8) == 0xf0 ? 4
                                                : 0;
        if (length == 0 || i + length > text.size()) {
            return false;
        }
        for (size_t k = 1; k < length; ++k) {
            if ((static_cast<uint8_t>(text[i + k]) & 0xc0) != 0x80) {
                return false;
            }
        }
        i += length;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    // The first two bytes choose the limit, the rest is the text.
    const size_t limit = (size_t{data[0]} << 8 | data[1]) % 4096;
    const std::span<const uint8_t> text(data + 2, size - 2);

    const std::string utf8 = utf16leToUtf8(text, limit);
    if (utf8.size() > limit || !wellFormed(utf8) || utf8.find('\0') != std::string::npos) {
        __builtin_trap();
    }

    const std::string_view raw(reinterpret_cast<const char*>(text.data()), text.size());
    const auto utf16 = utf8ToUtf16le(raw, limit);
    if (utf16.size() < 2 || (utf16.size() > limit && utf16.size() != 2) || utf16.size() % 2 != 0 ||
        utf16[utf16.size() - 1] != 0 || utf16[utf16.size() - 2] != 0) {
        __builtin_trap();
    }

    // Well-formed text with LF line ends goes to the client and back unchanged when nothing is cut.
    const std::string back = utf16leToUtf8(utf8ToUtf16le(utf8, 1 << 20), 1 << 20);
    if (utf8.find('\r') == std::string::npos && back != utf8) {
        __builtin_trap();
    }
    return 0;
}
