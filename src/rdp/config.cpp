#include "rdp/config.h"

#include <charconv>
#include <fstream>
#include <sstream>
#include <system_error>

#include "common/json_config.h"

namespace Vexa::Rdp {

namespace {

void setError(std::string* error, std::string text) {
    if (error) {
        *error = std::move(text);
    }
}

bool readBool(const Json::Value& json, const char* key, bool& out, std::string* error) {
    if (!json.isMember(key)) {
        return true;
    }
    if (!json[key].isBool()) {
        setError(error, std::string("not a boolean: ") + key);
        return false;
    }
    out = json[key].asBool();
    return true;
}

bool readText(const Json::Value& json, const char* key, std::string& out, std::string* error) {
    if (!json.isMember(key)) {
        return true;
    }
    if (!json[key].isString() || json[key].asString().empty()) {
        setError(error, std::string("not a non-empty string: ") + key);
        return false;
    }
    out = json[key].asString();
    return true;
}

bool readUnsigned(const Json::Value& json, const char* key, uint32_t min, uint32_t max, uint32_t& out,
                  std::string* error) {
    if (!json.isMember(key)) {
        return true;
    }
    const auto& value = json[key];
    if (!value.isIntegral() || !value.isUInt() || value.asUInt() < min || value.asUInt() > max) {
        setError(error,
                 std::string("not a number from ") + std::to_string(min) + " to " + std::to_string(max) + ": " + key);
        return false;
    }
    out = value.asUInt();
    return true;
}

} // namespace

std::optional<RdpConfig> parseRdpConfig(const Json::Value& json, std::string* error) {
    if (!json.isObject()) {
        setError(error, "not a JSON object");
        return std::nullopt;
    }
    RdpConfig config;
    const bool ok = readText(json, "rdp:certificate", config.certificate, error) &&
                    readText(json, "rdp:key", config.key, error) &&
                    readBool(json, "rdp:security:rdp", config.securityRdp, error) &&
                    readBool(json, "rdp:security:tls", config.securityTls, error) &&
                    readBool(json, "rdp:security:nla", config.securityNla, error) &&
                    readBool(json, "rdp:codec:remotefx", config.remoteFx, error) &&
                    readUnsigned(json, "rdp:frame:rate", 1, 60, config.frameRate, error) &&
                    readUnsigned(json, "rdp:start:timeout", 1, 3600, config.startTimeout, error) &&
                    readText(json, "rdp:login:user", config.loginUser, error) &&
                    readText(json, "rdp:log:level", config.logLevel, error);
    if (!ok) {
        return std::nullopt;
    }
    if (!config.securityRdp && !config.securityTls && !config.securityNla) {
        setError(error, "no security layer left: rdp:security:rdp, rdp:security:tls and rdp:security:nla are false");
        return std::nullopt;
    }
    return config;
}

std::optional<RdpConfig> loadRdpConfig(const std::filesystem::path& path, std::string* error) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec) && !ec) {
        return RdpConfig{};
    }
    std::ifstream in(path);
    if (!in) {
        setError(error, "cannot read " + path.string());
        return std::nullopt;
    }
    std::ostringstream text;
    text << in.rdbuf();
    std::string parseErrors;
    const Json::Value json = parseJsonStrict(text.str(), &parseErrors);
    if (json.isNull()) {
        setError(error, "invalid JSON in " + path.string() + ": " + parseErrors);
        return std::nullopt;
    }
    return parseRdpConfig(json, error);
}

std::optional<Options> parseOptions(std::span<const std::string_view> args, std::string* error) {
    Options options;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        const bool hasValue = i + 1 < args.size();
        if (arg == "--help" || arg == "-h") {
            options.help = true;
        } else if (arg == "--fd" && hasValue) {
            const std::string_view value = args[++i];
            int fd = -1;
            const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), fd);
            if (ec != std::errc() || end != value.data() + value.size() || fd < 0) {
                setError(error, "--fd: not a descriptor number: " + std::string(value));
                return std::nullopt;
            }
            options.fd = fd;
        } else if (arg == "--config" && hasValue && !args[i + 1].empty()) {
            options.configPath = args[++i];
        } else if (arg == "--log" && hasValue) {
            options.logLevel = std::string(args[++i]);
        } else {
            setError(error, "unknown or incomplete argument: " + std::string(arg));
            return std::nullopt;
        }
    }
    return options;
}

} // namespace Vexa::Rdp
