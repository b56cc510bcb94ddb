#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <sys/types.h>
#include <string_view>
#include <vector>

namespace Vexa::Utils {

// ASCII lower case of a text.
std::string stringLower(std::string_view text);

// ASCII upper case of a text; other bytes are kept as they are.
std::string stringUpper(std::string_view text);

// Each occurrence of `pattern` in `text` becomes `value`.
std::string stringReplace(std::string_view text, std::string_view pattern, std::string_view value);

// Bytes of a hexadecimal text, two digits per byte (a last single digit gives a byte of its own). Empty for an
// empty text and, with a warning, for a text that holds anything but hexadecimal digits.
std::vector<uint8_t> hexstr2bytes(std::string_view text);

// Lowercase two-digit hexadecimal of each byte, `separator` between bytes, "0x" before each byte with `prefix`.
std::string hexRange(const uint8_t* first, const uint8_t* last, std::string_view separator = {}, bool prefix = false);

// UTF-16 of a UTF-8 text; characters beyond the basic plane become surrogate pairs. Each maximal ill-formed
// subsequence of the input (a stray continuation byte, a truncated sequence, an overlong form, an encoded
// surrogate or a value beyond U+10FFFF) becomes one U+FFFD, as Unicode recommends, so every input converts.
std::u16string string2unicode(std::string_view text);

// The whole content of a file (also of /proc and /sys, whose sizes say nothing), read through a close-on-exec
// descriptor; empty when it cannot be read.
std::string readFileText(const std::filesystem::path& path);

// Replaces the file at `path` atomically: a hidden temporary file beside it (same file system), given `mode`,
// written and synced, then renamed over it, so that a reader never sees half a file. False (logged as a
// warning of `func`) when nothing was written.
bool writeFileAtomically(const std::filesystem::path& path, const std::string& text, mode_t mode, const char* func);

// Thread-safe text of an errno value (what strerror would say).
std::string errnoText(int err);

} // namespace Vexa::Utils

namespace Vexa {

// "VEXA <component> v.2.1.5 build(202507220750)"
std::string productVersion(std::string_view component);

// Version of the D-Bus interface revision, answered by vexaApiVersion.
inline constexpr uint32_t apiVersion = 20240620;

} // namespace Vexa
