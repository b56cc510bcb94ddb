#pragma once

// RDP pointer and keyboard events as the X events XTEST fakes. Pure, any thread.

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace Vexa::Rdp {

struct PointerAction {
    enum Kind : uint8_t { Motion, Press, Release } kind = Motion;
    // X button number for Press and Release (1 left, 2 middle, 3 right, 4/5 wheel up/down, 6/7 left/right,
    // 8/9 back/forward); the position for Motion.
    uint8_t button = 0;
    uint16_t x = 0, y = 0;
    bool operator==(const PointerAction&) const = default;
};

// The X events for one RDP mouse event (flags PTR_FLAGS_*), in the order they are to be faked: the motion
// first, so that a click lands where the client clicked. A wheel turn becomes one press and release per notch
// of 120 (at least one).
std::vector<PointerAction> pointerActions(uint16_t flags, uint16_t x, uint16_t y);
// The same for an extended mouse event (PTR_XFLAGS_*: the back and forward buttons).
std::vector<PointerAction> extendedPointerActions(uint16_t flags, uint16_t x, uint16_t y);

struct KeyAction {
    bool press = false;
    // The RDP scancode with its extended flag, as FreeRDP's keyboard tables take it.
    uint32_t scancode = 0;
    bool extended = false;
};

// The key event for RDP keyboard flags (KBD_FLAGS_*) and code; a release flag wins over a down flag.
KeyAction keyAction(uint16_t flags, uint8_t code);

// RDP scancodes, 0x100 added for the extended ones, to the X keycodes of the session's X server; 0 where none.
using ScancodeTable = std::array<uint8_t, 512>;

// For each scancode the lowest keycode that `scancodeOf` (FreeRDP's table for the server's keycodes) gives it and
// that `bound` (the server's keyboard map) gives a keysym at its first level. FreeRDP's own reverse lookup takes the
// highest keycode of a scancode, and for the left Alt key that is one of the server's virtual modifier keys without
// a symbol of its own: Alt would do nothing in the session.
ScancodeTable scancodeTable(const std::function<uint32_t(uint8_t)>& scancodeOf,
                            const std::function<bool(uint8_t)>& bound);
// The keycode of a scancode in the table; 0 when it has none.
uint8_t keycodeOf(const ScancodeTable& table, uint32_t scancode, bool extended);

// The X keysym of a Unicode character: Latin-1 characters are their own keysyms, the others 0x01000000 + code.
// 0 for control characters, surrogates and values beyond Unicode.
uint32_t unicodeKeysym(char32_t c);

// Joins the UTF-16 units of unicode key events into characters: a high surrogate waits for its low one.
class Utf16Joiner {
public:
    // The character the unit completes, or nullopt (a high surrogate kept, or a stray low one dropped).
    std::optional<char32_t> add(char16_t unit);

private:
    char16_t high = 0;
};

// The lock keys (RDP scancodes: Caps Lock 0x3A, Num Lock 0x45) to tap so that the X server's lock state (the
// modifier mask: Lock for Caps Lock, Mod2 for Num Lock) matches the client's synchronize flags (KBD_SYNC_*).
std::vector<uint8_t> lockKeysToTap(uint32_t syncFlags, uint16_t xModifierMask);

} // namespace Vexa::Rdp
