#pragma once

// The cookie of an X authority file, as the service and its session manager read it to reach a session's X server.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <vector>

namespace Vexa::Utils {

// The cookie of the first entry of X authority data; nullopt when the data ends inside that entry.
std::optional<std::vector<uint8_t>> xauthCookie(std::span<const uint8_t> data);
// The cookie of the first entry of an X authority file; empty when it cannot be read.
std::vector<uint8_t> readXauthfile(const std::filesystem::path& path);

} // namespace Vexa::Utils
