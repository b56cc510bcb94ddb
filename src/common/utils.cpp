#include "utils.h"

#include <algorithm>
#include <csignal>
#include <cstring>

namespace Vexa::Utils {

std::string stringLower(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); });
    return result;
}

std::string stringReplace(std::string_view text, std::string_view pattern, std::string_view value) {
    if (pattern.empty()) {
        return std::string(text);
    }
    std::string result;
    size_t pos = 0;
    for (size_t found; (found = text.find(pattern, pos)) != std::string_view::npos; pos = found + pattern.size()) {
        result.append(text.substr(pos, found - pos)).append(value);
    }
    return result.append(text.substr(pos));
}

std::string errnoText(int err) {
    char buf[256];
    // GNU strerror_r: returns either buf or a static text.
    return strerror_r(err, buf, sizeof(buf));
}

bool processRunning(pid_t pid) noexcept {
    return pid > 0 && kill(pid, 0) == 0;
}

} // namespace Vexa::Utils

namespace Vexa {

namespace {
constexpr int versionMajor = 2;
constexpr int versionMinor = 1;
constexpr int versionPatch = 5;
constexpr std::string_view buildStamp = "202507220750";
} // namespace

std::string productVersion(std::string_view component) {
    std::string result("VEXA ");
    result.append(component)
        .append(" v.")
        .append(std::to_string(versionMajor))
        .append(".")
        .append(std::to_string(versionMinor))
        .append(".")
        .append(std::to_string(versionPatch))
        .append(" build(")
        .append(buildStamp)
        .append(")");
    return result;
}

} // namespace Vexa
