// Notifications and remote assistance inside a session.

#include "dbus_service.h"

namespace Vexa {

bool DBusService::vexaSendNotify(const uint32_t&, const std::string&, const std::string&, const uint8_t&) {
    return notImplemented("vexaSendNotify", false);
}

bool DBusService::vexaSessionRemoteAssistance(const uint32_t&, const bool&) {
    return notImplemented("vexaSessionRemoteAssistance", false);
}

} // namespace Vexa
