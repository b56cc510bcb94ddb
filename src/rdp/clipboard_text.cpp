#include "rdp/clipboard_text.h"

#include <algorithm>

namespace Vexa::Rdp {

namespace {

constexpr char32_t replacement = 0xfffd;

void appendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
        out.push_back(static_cast<char>(0xc0 | (c >> 6)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3f)));
    } else if (c < 0x10000) {
        out.push_back(static_cast<char>(0xe0 | (c >> 12)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3f)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3f)));
    } else {
        out.push_back(static_cast<char>(0xf0 | (c >> 18)));
        out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3f)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3f)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3f)));
    }
}

size_t utf8Length(char32_t c) {
    return c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
}

// The next code point of UTF-8 text at `i` (advanced); invalid, overlong or surrogate sequences give U+FFFD and
// advance by one byte.
char32_t nextUtf8(std::string_view text, size_t& i) {
    const auto byte = [&](size_t k) { return static_cast<uint8_t>(text[k]); };
    const uint8_t lead = byte(i);
    if (lead < 0x80) {
        ++i;
        return lead;
    }
    size_t length = 0;
    char32_t c = 0;
    char32_t min = 0;
    if ((lead & 0xe0) == 0xc0) {
        length = 2, c = lead & 0x1f, min = 0x80;
    } else if ((lead & 0xf0) == 0xe0) {
        length = 3, c = lead & 0x0f, min = 0x800;
    } else if ((lead & 0xf8) == 0xf0) {
        length = 4, c = lead & 0x07, min = 0x10000;
    } else {
        ++i;
        return replacement;
    }
    if (i + length > text.size()) {
        ++i;
        return replacement;
    }
    for (size_t k = 1; k < length; ++k) {
        if ((byte(i + k) & 0xc0) != 0x80) {
            ++i;
            return replacement;
        }
        c = (c << 6) | (byte(i + k) & 0x3f);
    }
    if (c < min || c > 0x10ffff || (c >= 0xd800 && c <= 0xdfff)) {
        ++i;
        return replacement;
    }
    i += length;
    return c;
}

} // namespace

ClipboardPolicy clipboardPolicy(uint32_t redirectBits, uint32_t limitBytes) {
    ClipboardPolicy policy;
    policy.clientToServer = redirectBits & clipboardClientToServerBit;
    policy.serverToClient = redirectBits & clipboardServerToClientBit;
    policy.limit = limitBytes == 0 ? clipboardHardLimit : std::min<size_t>(limitBytes, clipboardHardLimit);
    return policy;
}

std::string utf16leToUtf8(std::span<const uint8_t> data, size_t limit) {
    std::string out;
    const size_t units = data.size() / 2;
    auto unit = [&](size_t k) -> char16_t { return static_cast<char16_t>(data[2 * k] | (data[2 * k + 1] << 8)); };
    for (size_t k = 0; k < units; ++k) {
        char32_t c = unit(k);
        if (c == 0) {
            break;
        }
        if (c == u'\r' && k + 1 < units && unit(k + 1) == u'\n') {
            continue;
        }
        if (c >= 0xd800 && c <= 0xdbff) {
            if (k + 1 < units && unit(k + 1) >= 0xdc00 && unit(k + 1) <= 0xdfff) {
                c = 0x10000 + ((c - 0xd800) << 10) + (unit(k + 1) - 0xdc00);
                ++k;
            } else {
                c = replacement;
            }
        } else if (c >= 0xdc00 && c <= 0xdfff) {
            c = replacement;
        }
        if (out.size() + utf8Length(c) > limit) {
            break;
        }
        appendUtf8(out, c);
    }
    return out;
}

std::vector<uint8_t> utf8ToUtf16le(std::string_view text, size_t limit) {
    std::vector<uint8_t> out;
    const size_t room = limit < 2 ? 0 : limit - 2;
    auto push = [&out](char16_t u) {
        out.push_back(static_cast<uint8_t>(u & 0xff));
        out.push_back(static_cast<uint8_t>(u >> 8));
    };
    for (size_t i = 0; i < text.size();) {
        const char32_t c = nextUtf8(text, i);
        if (c == 0) {
            break;
        }
        // A CR already before its LF: the LF brings its own.
        if (c == U'\r' && i < text.size() && text[i] == '\n') {
            continue;
        }
        const size_t need = c == U'\n' ? 4 : c >= 0x10000 ? 4 : 2;
        if (out.size() + need > room) {
            break;
        }
        if (c == U'\n') {
            push(u'\r');
            push(u'\n');
        } else if (c >= 0x10000) {
            push(static_cast<char16_t>(0xd800 + ((c - 0x10000) >> 10)));
            push(static_cast<char16_t>(0xdc00 + ((c - 0x10000) & 0x3ff)));
        } else {
            push(static_cast<char16_t>(c));
        }
    }
    push(0);
    return out;
}

uint32_t pickTextFormat(std::span<const uint32_t> offered) {
    return std::find(offered.begin(), offered.end(), formatUnicodeText) != offered.end() ? formatUnicodeText : 0;
}

} // namespace Vexa::Rdp
