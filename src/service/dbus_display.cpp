// Display geometry of sessions.

#include "dbus_service.h"

namespace Vexa {

void DBusService::vexaSessionGeometry(const uint32_t&, const uint16_t&, const uint16_t&) {
    notImplemented("vexaSessionGeometry");
}

bool DBusService::vexaDisplayResize(const uint32_t&, const uint16_t&, const uint16_t&) {
    return notImplemented("vexaDisplayResize", false);
}

bool DBusService::vexaTransportDisplayMonitorsChanged(
    const uint32_t&, const std::vector<sdbus::Struct<uint32_t, int32_t, int32_t, uint32_t, uint32_t, uint32_t, uint32_t,
                                                     uint32_t, uint32_t, uint32_t>>&) {
    return notImplemented("vexaTransportDisplayMonitorsChanged", false);
}

} // namespace Vexa
