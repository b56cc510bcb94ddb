// Session shutdown and disconnect requests.

#include "dbus_service.h"

namespace Vexa {

bool DBusService::busSessionShutdown(const std::string&) {
    return notImplemented("busSessionShutdown", false);
}

bool DBusService::vexaSessionShutdown(const uint32_t&) {
    return notImplemented("vexaSessionShutdown", false);
}

bool DBusService::vexaDisconnect(const uint32_t&) {
    return notImplemented("vexaDisconnect", false);
}

void DBusService::vexaTransportDisplayShutdown(const uint32_t&) {
    notImplemented("vexaTransportDisplayShutdown");
}

} // namespace Vexa
