// Connection policy, the proxy handshake and transport queries.

#include "dbus_service.h"

namespace Vexa {

void DBusService::proxyListenStarted(const uint32_t&, const bool&) {
    notImplemented("proxyListenStarted");
}

void DBusService::proxyClientConnected(const uint32_t&, const std::string&) {
    notImplemented("proxyClientConnected");
}

void DBusService::proxyListenTimeout(const uint32_t&) {
    notImplemented("proxyListenTimeout");
}

void DBusService::proxySessionConnected(const uint32_t&, const uint32_t&, const std::string&) {
    notImplemented("proxySessionConnected");
}

bool DBusService::vexaConnectRdpTransport(const uint32_t&, const uint32_t&) {
    return notImplemented("vexaConnectRdpTransport", false);
}

bool DBusService::vexaCheckProxyListen() {
    return proxyListen.load();
}

void DBusService::vexaSessionPolicyConnect(const int32_t&, const uint32_t&) {
    notImplemented("vexaSessionPolicyConnect");
}

uint32_t DBusService::vexaPolicyConnectDefault() {
    return boundary("vexaPolicyConnectDefault", 0u, [this] { return static_cast<uint32_t>(defaults().connectPolicy); });
}

uint32_t DBusService::vexaTransportDisplayInactivity(const uint32_t&) {
    return notImplemented("vexaTransportDisplayInactivity", 0u);
}

void DBusService::vexaTransportDisplayInactivityEvent(const uint32_t&) {
    notImplemented("vexaTransportDisplayInactivityEvent");
}

} // namespace Vexa
