#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace Vexa::Utils {

// ASCII lower case of a text.
std::string stringLower(std::string_view text);

// Each occurrence of `pattern` in `text` becomes `value`.
std::string stringReplace(std::string_view text, std::string_view pattern, std::string_view value);

// Thread-safe text of an errno value (what strerror would say).
std::string errnoText(int err);

// A pid is running when it is positive and kill(pid, 0) succeeds.
bool processRunning(pid_t pid) noexcept;

} // namespace Vexa::Utils

namespace Vexa {

// "VEXA <component> v.2.1.5 build(202507220750)"
std::string productVersion(std::string_view component);

// Version of the D-Bus interface revision, answered by vexaApiVersion.
inline constexpr uint32_t apiVersion = 20240620;

} // namespace Vexa
