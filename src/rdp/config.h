#pragma once

// The transport's configuration (/etc/vexa/rdp.json, one flat JSON object of colon-joined keys) and its command
// line. Pure: parsing only, no files opened here except by loadRdpConfig. Any thread.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <json/value.h>

namespace Vexa::Rdp {

inline constexpr const char* defaultConfigPath = "/etc/vexa/rdp.json";

struct RdpConfig {
    std::string certificate = "/etc/vexa/rdp/tls.crt";
    std::string key = "/etc/vexa/rdp/tls.key";
    bool securityRdp = false;
    bool securityTls = true;
    bool securityNla = false;
    // RemoteFX is offered to clients that announce it; off here, every client gets plain bitmaps.
    bool remoteFx = true;
    // Frames per second at most; damage arriving faster is gathered into the next frame.
    uint32_t frameRate = 30;
    // Seconds the D-Bus calls that start a session may take.
    uint32_t startTimeout = 120;
    // The log level by its name: "none" (notices and worse), "info", "debug", "trace".
    std::string logLevel = "info";
    // The account of the login screen's sessions: clients that send no password log in there (the service's
    // "login:helper:user").
    std::string loginUser = "vexa-login";
};

// The configuration from a parsed JSON object; absent keys keep their defaults. Nullopt, with the reason in
// `error`, when the value is not an object or a key has the wrong type or an impossible value.
std::optional<RdpConfig> parseRdpConfig(const Json::Value& json, std::string* error = nullptr);
// The file's configuration; a missing file gives the defaults, an unreadable or invalid one nullopt.
std::optional<RdpConfig> loadRdpConfig(const std::filesystem::path& path, std::string* error = nullptr);

struct Options {
    // The accepted connection: systemd's first passed descriptor unless --fd names another.
    std::optional<int> fd;
    std::string configPath = defaultConfigPath;
    std::optional<std::string> logLevel;
    bool help = false;
};

// "--fd N", "--config PATH", "--log LEVEL", "--help"; nullopt with the reason in `error` on anything else.
std::optional<Options> parseOptions(std::span<const std::string_view> args, std::string* error = nullptr);

} // namespace Vexa::Rdp
