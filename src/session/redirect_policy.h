#pragma once

// The packed redirect-policy word of a session. Bit positions are fixed: the word is saved per user and
// exchanged with transports.

#include <cstdint>

namespace Vexa {

enum class RedirectBit : uint32_t {
    Printer = 2,
    Drive = 3,
    Smartcard = 5,
    ClipboardServer = 24,
    ClipboardClient = 25,
    ClipboardFile = 26,
    Microphone = 28,
    Audio = 29,
};

// Set in every word handed to a transport, never stored in a session.
inline constexpr uint32_t redirectTransportMarker = 1u << 27;

constexpr uint32_t redirectMask(RedirectBit bit) noexcept {
    return 1u << static_cast<uint32_t>(bit);
}

constexpr bool redirectAllowed(uint32_t word, RedirectBit bit) noexcept {
    return (word & redirectMask(bit)) != 0;
}

constexpr uint32_t redirectSet(uint32_t word, RedirectBit bit, bool allow) noexcept {
    return allow ? (word | redirectMask(bit)) : (word & ~redirectMask(bit));
}

// Two 32-bit values in one 64-bit reply: the first in the high half, the second in the low half.
constexpr uint64_t packPair(uint32_t first, uint32_t second) noexcept {
    return (static_cast<uint64_t>(first) << 32) | second;
}

} // namespace Vexa
