#include "session_request.h"

#include <limits>
#include <stdexcept>

#include "common/json_config.h"
#include "common/logger.h"

namespace Vexa {

namespace {

constexpr const char* self = "vexaSessionRequest";
constexpr int32_t paramsFailed = -4;
constexpr int32_t programUnknown = -9;

// An integer key that must fit its field; the default when absent.
template <typename Number>
Number bounded(const JsonConfig& params, const char* key, Number def) {
    if (!params.hasValue(key)) {
        return def;
    }
    const auto value = params.getValue(key);
    if (!value.isIntegral() || value.asLargestInt() < 0 ||
        value.asLargestInt() > static_cast<Json::LargestInt>(std::numeric_limits<Number>::max())) {
        throw std::invalid_argument(std::string("invalid value: ") + key);
    }
    return static_cast<Number>(value.asLargestInt());
}

// Keys are read only with their own JSON type: the library's conversions would turn null into "" or false and
// an object into a list of its values.
void requireType(const JsonConfig& params, const char* key, bool (Json::Value::*isType)() const) {
    if (params.hasValue(key) && !(params.getValue(key).*isType)()) {
        throw std::invalid_argument(std::string("invalid value: ") + key);
    }
}

std::optional<std::string> optionalText(const JsonConfig& params, const char* key) {
    requireType(params, key, &Json::Value::isString);
    return params.hasValue(key) ? std::optional<std::string>(params.getString(key)) : std::nullopt;
}

std::optional<bool> optionalFlag(const JsonConfig& params, const char* key) {
    requireType(params, key, &Json::Value::isBool);
    return params.hasValue(key) ? std::optional<bool>(params.getBoolean(key)) : std::nullopt;
}

std::list<std::string> textList(const JsonConfig& params, const char* key) {
    requireType(params, key, &Json::Value::isArray);
    for (const auto& item : params.getValue(key)) {
        if (!item.isString()) {
            throw std::invalid_argument(std::string("invalid value: ") + key);
        }
    }
    return params.getStringList(key);
}

std::string joinArgs(const std::list<std::string>& args) {
    std::string text;
    for (const auto& arg : args) {
        text += (text.empty() ? "`" : ", `") + arg + "'";
    }
    return text;
}

ParsedSessionRequest refuse(int32_t reply) {
    return ParsedSessionRequest{std::nullopt, reply};
}

ParsedSessionRequest parse(std::string_view text,
                           const std::function<std::optional<Program>(std::string_view)>& findProgram) {
    const JsonConfigString params(text);
    if (!params.isValid()) {
        Syslog::error("%s: params failed, not found: `%s'", self, "username");
        return refuse(paramsFailed);
    }
    if (!params.hasValue("username")) {
        Syslog::error("%s: params failed, not found: `%s'", self, "username");
        return refuse(paramsFailed);
    }

    SessionRequest request;
    request.username = optionalText(params, "username").value_or(std::string());
    request.domain = optionalText(params, "domain").value_or(std::string());
    request.uizr = optionalText(params, "uizr").value_or(std::string());
    request.loginRequired = optionalFlag(params, "login_required").value_or(false);
    Syslog::debug("%s: username: `%s', domain: `%s', login_required: %s", self, request.username.c_str(),
                  request.domain.c_str(), request.loginRequired ? "true" : "false");

    request.serverId = optionalText(params, "server_id");
    for (const char* key : {"password:enc", "password", "transport_token"}) {
        requireType(params, key, &Json::Value::isString);
    }
    if (params.hasValue("password:enc") && !request.serverId) {
        Syslog::error("%s: params failed, not found: `%s'", self, "server_id");
        return refuse(paramsFailed);
    }
    request.credentials = decodeRequestPassword(params, self);
    if (!request.credentials.ok()) {
        return refuse(paramsFailed);
    }

    request.depth = bounded<uint8_t>(params, "depth", 24);
    request.width = bounded<uint16_t>(params, "width", 1280);
    request.height = bounded<uint16_t>(params, "height", 1024);
    request.sessionPath = optionalText(params, "session:path").value_or(terminalProgram);
    request.sessionArgs = textList(params, "session:args");
    Syslog::debug("%s: session:path = `%s'", self, request.sessionPath.c_str());
    Syslog::debug("%s: session:args = [ %s ]", self, joinArgs(request.sessionArgs).c_str());

    if (const auto named = optionalText(params, "program")) {
        const auto& name = *named;
        const auto program = findProgram(name);
        if (!program) {
            Syslog::error("%s: program not registered, name: %s", self, name.c_str());
            return refuse(programUnknown);
        }
        Syslog::debug("%s: program = `%s'", self, name.c_str());
        request.sessionPath = program->path.string();
        request.sessionArgs = program->args;
        request.mode = RunMode::UserSession;
    }

    request.secNla = optionalFlag(params, "sec:nla");
    request.secTls = optionalFlag(params, "sec:tls");
    request.secRdp = optionalFlag(params, "sec:rdp");
    request.secAuth = optionalFlag(params, "sec:auth");
    request.gusId = optionalText(params, "gus:id");
    request.useNtlmv2 = optionalFlag(params, "use:ntlmv2").value_or(false);
    request.transportRun = optionalFlag(params, "transport:run").value_or(true);
    return ParsedSessionRequest{std::move(request), 0};
}

} // namespace

ParsedSessionRequest parseSessionRequest(std::string_view text,
                                         const std::function<std::optional<Program>(std::string_view)>& findProgram) {
    try {
        return parse(text, findProgram);
    } catch (const std::exception& err) {
        Syslog::error("%s: exception: %s", self, err.what());
    }
    return refuse(paramsFailed);
}

int32_t sessionRequestReply(StartStatus status) noexcept {
    switch (static_cast<int>(status)) {
    case 8:
        return -9;
    case 9:
        return -8;
    default:
        return -static_cast<int32_t>(status);
    }
}

} // namespace Vexa
