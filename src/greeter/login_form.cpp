#include "greeter/login_form.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>

#include <json/value.h>

#include "common/json_config.h"

namespace Vexa::Greeter {

namespace {

// X screens of the service's X servers: no side below 64 nor above 8192 pixels.
uint32_t side(uint32_t value, uint32_t fallback) {
    return value == 0 ? fallback : std::clamp<uint32_t>(value, 64, 8192);
}

} // namespace

std::optional<Options> parseArguments(const std::vector<std::string_view>& args, std::string& problem) {
    Options options;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] != "--transport") {
            problem = "unknown argument `" + std::string(args[i]) + "'";
            return std::nullopt;
        }
        if (options.transport != 0) {
            problem = "--transport given twice";
            return std::nullopt;
        }
        if (i + 1 == args.size()) {
            problem = "--transport needs a process id";
            return std::nullopt;
        }
        const std::string_view value = args[++i];
        pid_t pid = 0;
        const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), pid);
        if (ec != std::errc() || end != value.data() + value.size() || pid <= 0) {
            problem = "--transport: not a process id: `" + std::string(value) + "'";
            return std::nullopt;
        }
        options.transport = pid;
    }
    if (options.transport == 0) {
        problem = "--transport PID is required";
        return std::nullopt;
    }
    return options;
}

std::string trimmedUserName(std::string_view typed) {
    constexpr std::string_view blanks = " \t\r\n";
    const auto first = typed.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return std::string(typed.substr(first, typed.find_last_not_of(blanks) - first + 1));
}

std::string sessionRequestJson(const LoginRequest& request) {
    Json::Value json(Json::objectValue);
    json["username"] = request.user;
    json["password"] = request.password;
    if (!request.domain.empty()) {
        json["domain"] = request.domain;
    }
    if (!request.program.empty()) {
        json["program"] = request.program;
    }
    json["width"] = side(request.width, 1280);
    json["height"] = side(request.height, 1024);
    json["depth"] = 24;
    return compactJson(json);
}

std::string refusalText(int32_t reply) {
    switch (reply) {
    case -1:
    case -4:
        return "Wrong user name or password.";
    case -2:
        return "This account has expired.";
    case -3:
        return "The password of this account has expired. Change it before you log in.";
    case -5:
        return "Your session is in use on another connection and takes no second one.";
    case -6:
        return "The server has as many sessions as it may run. Try again later.";
    case -8:
        return "This account may not log in here.";
    case -9:
        return "That program is not offered here.";
    default:
        return "The session could not be started. Try again later.";
    }
}

std::optional<SessionDisplay> sessionDisplay(std::string_view report) {
    const JsonConfigString json(report);
    if (!json.isValid() || !json.getValue("display").isIntegral() || !json.getValue("xauthfile").isString()) {
        return std::nullopt;
    }
    SessionDisplay shown{json.getInteger("display"), json.getString("xauthfile")};
    if (shown.display < 0 || shown.xauthfile.empty()) {
        return std::nullopt;
    }
    return shown;
}

uint32_t screenLifetime(std::string_view report) {
    const JsonConfigString json(report);
    if (!json.isValid()) {
        return 0;
    }
    uint32_t seconds = 0;
    for (const auto* key : {"duration:limit", "disconnect:limit"}) {
        if (const Json::Value value = json.getValue(key); value.isUInt()) {
            seconds += std::min<uint32_t>(value.asUInt(), 86400);
        }
    }
    return seconds;
}

std::optional<int32_t> displayNumber(std::string_view name) {
    const auto colon = name.rfind(':');
    if (colon == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view digits = name.substr(colon + 1);
    digits = digits.substr(0, digits.find('.'));
    int32_t number = -1;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (ec != std::errc() || end != digits.data() + digits.size() || number < 0) {
        return std::nullopt;
    }
    return number;
}

const std::vector<BusMethod>& busMethods() {
    static const std::vector<BusMethod> table{
        {"vexaLoginHelperPolicyShowSessions", "", "b"},
        {"vexaLoginHelperPolicyShowKeyboard", "", "b"},
        {"vexaProgramList", "", "as"},
        {"vexaSessionRequest", "s", "i"},
        {"vexaSessionInfoJson", "u", "s"},
        {"vexaSessions", "", "a(su)"},
        {"vexaLoginHelperAllowConnectForTransportTo", "iis", ""},
    };
    return table;
}

const BusMethod& busMethod(std::string_view name) {
    const auto& table = busMethods();
    const auto found =
        std::find_if(table.begin(), table.end(), [name](const BusMethod& method) { return method.name == name; });
    if (found == table.end()) {
        throw std::logic_error("busMethod: not in the table: " + std::string(name));
    }
    return *found;
}

} // namespace Vexa::Greeter
