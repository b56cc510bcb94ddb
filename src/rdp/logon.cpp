#include "rdp/logon.h"

#include <algorithm>

#include <json/value.h>
#include <json/writer.h>

#include <freerdp/error.h>
#include <freerdp/settings.h>

namespace Vexa::Rdp {

namespace {

// X screens of the service's X servers: no side below 64 nor above 8192 pixels.
uint32_t side(uint32_t value, uint32_t fallback) {
    if (value == 0) {
        return fallback;
    }
    return std::clamp<uint32_t>(value, 64, 8192);
}

} // namespace

std::string sessionRequestJson(const LogonInfo& logon) {
    Json::Value json(Json::objectValue);
    json["username"] = logon.username;
    json["password"] = logon.password;
    if (!logon.domain.empty()) {
        json["domain"] = logon.domain;
    }
    json["width"] = side(logon.width, 1280);
    json["height"] = side(logon.height, 1024);
    // The capture reads 24-bit screens; clients of lower depths get the pixels converted.
    json["depth"] = 24;
    json["sec:nla"] = logon.nla;
    json["sec:tls"] = logon.tls;
    json["sec:rdp"] = logon.rdp;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, json);
}

Refusal refusalFor(int32_t reply) {
    switch (reply) {
    case -1:
        return {ERRINFO_SERVER_INSUFFICIENT_PRIVILEGES, LOGON_FAILED_BAD_PASSWORD, "unknown user"};
    case -2:
        return {ERRINFO_SERVER_INSUFFICIENT_PRIVILEGES, LOGON_FAILED_OTHER, "account expired"};
    case -3:
        return {ERRINFO_SERVER_INSUFFICIENT_PRIVILEGES, LOGON_FAILED_UPDATE_PASSWORD, "password expired"};
    case -4:
        return {ERRINFO_SERVER_INSUFFICIENT_PRIVILEGES, LOGON_FAILED_BAD_PASSWORD,
                "bad request, wrong credentials or failed start"};
    case -5:
        return {ERRINFO_SERVER_DENIED_CONNECTION, -1, "connection refused by policy"};
    case -6:
        return {ERRINFO_SERVER_DENIED_CONNECTION, -1, "sessions or users limit reached"};
    case -8:
        return {ERRINFO_SERVER_INSUFFICIENT_PRIVILEGES, LOGON_FAILED_OTHER, "user not allowed"};
    case -9:
        return {ERRINFO_SERVER_DENIED_CONNECTION, -1, "unknown published program"};
    default:
        return {ERRINFO_SERVER_DENIED_CONNECTION, -1, "session request failed"};
    }
}

} // namespace Vexa::Rdp
