#pragma once

// Clipboard text between the RDP client (CF_UNICODETEXT: UTF-16LE, CRLF line ends, NUL-terminated) and X
// (UTF8_STRING: UTF-8, LF line ends), the clipboard policy bits, and the choice among a client's formats.
// Pure, any thread. The client's data is untrusted: every conversion is bounded and never reads past its input.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Vexa::Rdp {

// Bits of the redirect word handed to the transport (vexaTransportDisplayPolicyRedirect), as the setter
// vexaSessionPolicyRedirectClipboard(session, client2server, server2client) stores them.
inline constexpr uint32_t clipboardServerToClientBit = 1u << 24;
inline constexpr uint32_t clipboardClientToServerBit = 1u << 25;

// The most clipboard text carried either way when the service sets no limit (0).
inline constexpr size_t clipboardHardLimit = 16u << 20;

struct ClipboardPolicy {
    bool clientToServer = false;
    bool serverToClient = false;
    // Bytes of text at most, in the form it is sent in.
    size_t limit = clipboardHardLimit;
};
ClipboardPolicy clipboardPolicy(uint32_t redirectBits, uint32_t limitBytes);

// UTF-16LE (up to the first NUL or the end; an odd last byte ignored) as UTF-8 with CRLF made LF; unpaired
// surrogates become U+FFFD. The result stops before the character that would take it past `limit` bytes.
std::string utf16leToUtf8(std::span<const uint8_t> data, size_t limit);

// UTF-8 as NUL-terminated UTF-16LE with LF made CRLF; invalid sequences become U+FFFD. The result, terminator
// included, stays within `limit` bytes (at least the terminator).
std::vector<uint8_t> utf8ToUtf16le(std::string_view text, size_t limit);

// The standard clipboard formats the transport exchanges.
inline constexpr uint32_t formatText = 1;         // CF_TEXT
inline constexpr uint32_t formatUnicodeText = 13; // CF_UNICODETEXT

// The format to ask the client for among those it offers: Unicode text, else none (0).
uint32_t pickTextFormat(std::span<const uint32_t> offered);

} // namespace Vexa::Rdp
