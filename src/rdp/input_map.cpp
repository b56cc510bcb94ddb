#include "rdp/input_map.h"

#include <freerdp/input.h>
#include <xcb/xproto.h>

namespace Vexa::Rdp {

namespace {

void click(std::vector<PointerAction>& out, uint8_t button, unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
        out.push_back({PointerAction::Press, button, 0, 0});
        out.push_back({PointerAction::Release, button, 0, 0});
    }
}

// Notches in a rotation value: its magnitude in steps of 120, at least one.
unsigned notches(uint16_t flags) {
    int rotation = flags & WheelRotationMask;
    if (flags & PTR_FLAGS_WHEEL_NEGATIVE) {
        // Nine-bit two's complement.
        rotation = 0x200 - rotation;
    }
    const unsigned count = static_cast<unsigned>(rotation) / 120;
    return count == 0 ? 1 : count;
}

} // namespace

ScancodeTable scancodeTable(const std::function<uint32_t(uint8_t)>& scancodeOf,
                            const std::function<bool(uint8_t)>& bound) {
    ScancodeTable table{};
    for (unsigned keycode = 8; keycode < 256; ++keycode) {
        const auto code = static_cast<uint8_t>(keycode);
        const uint32_t scancode = scancodeOf(code);
        if (scancode == 0 || scancode >= table.size() || table[scancode] != 0 || !bound(code)) {
            continue;
        }
        table[scancode] = code;
    }
    return table;
}

uint8_t keycodeOf(const ScancodeTable& table, uint32_t scancode, bool extended) {
    const uint32_t index = (scancode & 0xff) | (extended ? 0x100 : 0);
    return table[index];
}

std::vector<PointerAction> pointerActions(uint16_t flags, uint16_t x, uint16_t y) {
    std::vector<PointerAction> out;
    if (flags & (PTR_FLAGS_WHEEL | PTR_FLAGS_HWHEEL)) {
        const bool negative = flags & PTR_FLAGS_WHEEL_NEGATIVE;
        // Vertical: positive turns away from the user (up, 4). Horizontal: positive turns right (7).
        const uint8_t button = (flags & PTR_FLAGS_WHEEL) ? (negative ? 5 : 4) : (negative ? 6 : 7);
        click(out, button, notches(flags));
        return out;
    }
    if (flags & PTR_FLAGS_MOVE) {
        out.push_back({PointerAction::Motion, 0, x, y});
    }
    const auto kind = (flags & PTR_FLAGS_DOWN) ? PointerAction::Press : PointerAction::Release;
    bool placed = flags & PTR_FLAGS_MOVE;
    for (const auto& [flag, button] :
         {std::pair<uint16_t, uint8_t>{PTR_FLAGS_BUTTON1, 1}, std::pair<uint16_t, uint8_t>{PTR_FLAGS_BUTTON3, 2},
          std::pair<uint16_t, uint8_t>{PTR_FLAGS_BUTTON2, 3}}) {
        if (flags & flag) {
            if (!placed) {
                out.push_back({PointerAction::Motion, 0, x, y});
                placed = true;
            }
            out.push_back({kind, button, 0, 0});
        }
    }
    return out;
}

std::vector<PointerAction> extendedPointerActions(uint16_t flags, uint16_t x, uint16_t y) {
    std::vector<PointerAction> out;
    const auto kind = (flags & PTR_XFLAGS_DOWN) ? PointerAction::Press : PointerAction::Release;
    for (const auto& [flag, button] :
         {std::pair<uint16_t, uint8_t>{PTR_XFLAGS_BUTTON1, 8}, std::pair<uint16_t, uint8_t>{PTR_XFLAGS_BUTTON2, 9}}) {
        if (flags & flag) {
            out.push_back({PointerAction::Motion, 0, x, y});
            out.push_back({kind, button, 0, 0});
        }
    }
    return out;
}

KeyAction keyAction(uint16_t flags, uint8_t code) {
    KeyAction action;
    action.press = !(flags & KBD_FLAGS_RELEASE);
    action.scancode = code;
    action.extended = flags & KBD_FLAGS_EXTENDED;
    return action;
}

uint32_t unicodeKeysym(char32_t c) {
    if (c < 0x20 || c == 0x7f || (c >= 0x80 && c < 0xa0) || (c >= 0xd800 && c <= 0xdfff) || c > 0x10ffff) {
        return 0;
    }
    return c <= 0xff ? static_cast<uint32_t>(c) : 0x01000000u + static_cast<uint32_t>(c);
}

std::optional<char32_t> Utf16Joiner::add(char16_t unit) {
    if (unit >= 0xd800 && unit <= 0xdbff) {
        high = unit;
        return std::nullopt;
    }
    if (unit >= 0xdc00 && unit <= 0xdfff) {
        const char16_t first = high;
        high = 0;
        if (first == 0) {
            return std::nullopt;
        }
        return 0x10000 + ((char32_t{first} - 0xd800) << 10) + (char32_t{unit} - 0xdc00);
    }
    high = 0;
    return unit;
}

std::vector<uint8_t> lockKeysToTap(uint32_t syncFlags, uint16_t xModifierMask) {
    std::vector<uint8_t> out;
    if (((syncFlags & KBD_SYNC_CAPS_LOCK) != 0) != ((xModifierMask & XCB_MOD_MASK_LOCK) != 0)) {
        out.push_back(0x3a);
    }
    if (((syncFlags & KBD_SYNC_NUM_LOCK) != 0) != ((xModifierMask & XCB_MOD_MASK_2) != 0)) {
        out.push_back(0x45);
    }
    return out;
}

} // namespace Vexa::Rdp
