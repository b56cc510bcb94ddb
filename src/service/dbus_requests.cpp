// Session requests from transports and administrators, and the login helper.

#include "dbus_service.h"
#include "start/pam_service.h"

namespace Vexa {

namespace {
// Reply of a session request whose start failed.
constexpr int32_t requestFailed = -4;
} // namespace

int32_t DBusService::busSessionRequest(const std::string&, const std::string&, const uint8_t&, const uint16_t&,
                                       const uint16_t&) {
    return notImplemented("busSessionRequest", requestFailed);
}

int32_t DBusService::busSessionDomainRequest(const std::string&, const std::string&, const std::string&, const uint8_t&,
                                             const uint16_t&, const uint16_t&) {
    return notImplemented("busSessionDomainRequest", requestFailed);
}

int32_t DBusService::vexaSessionRequest(const std::string&) {
    return notImplemented("vexaSessionRequest", requestFailed);
}

int32_t DBusService::busProgramRequest(const std::string&, const std::string&, const std::string&, const uint16_t&,
                                       const uint16_t&, const std::string&) {
    return notImplemented("busProgramRequest", requestFailed);
}

bool DBusService::vexaLogin(const std::string&, const std::string&, const std::string&) {
    return notImplemented("vexaLogin", false);
}

bool DBusService::vexaTestConnect(const std::string& user, const std::string& domain, const std::string& pass) {
    return boundary("vexaTestConnect", false, [&] {
        notice("%s: user: %s, domain: `%s'", "vexaTestConnect", user.c_str(), domain.c_str());
        PamService pam(configuration()->getString("pam:service", "vexa"), user, pass);
        return pam.checkAuthenticate();
    });
}

sdbus::Struct<int32_t, std::string> DBusService::vexaLoginHelperStart(const std::string&, const int32_t&) {
    return notImplemented("vexaLoginHelperStart", sdbus::Struct<int32_t, std::string>(-1, std::string()));
}

std::string DBusService::vexaLoginHelperStarted(const int32_t&) {
    return notImplemented("vexaLoginHelperStarted", std::string());
}

void DBusService::vexaLoginHelperAllowConnectForTransportTo(const int32_t&, const int32_t&, const std::string&) {
    notImplemented("vexaLoginHelperAllowConnectForTransportTo");
}

bool DBusService::vexaTransportPolicyShowLoginHelper() {
    return boundary("vexaTransportPolicyShowLoginHelper", false, [this] { return defaults().loginHelper; });
}

bool DBusService::vexaLoginHelperPolicyShowSessions() {
    return boundary("vexaLoginHelperPolicyShowSessions", false, [this] { return defaults().loginSessions; });
}

bool DBusService::vexaLoginHelperPolicyShowKeyboard() {
    return boundary("vexaLoginHelperPolicyShowKeyboard", false, [this] { return defaults().loginKeyboard; });
}

} // namespace Vexa
