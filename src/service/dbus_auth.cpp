// Credential checks.

#include "dbus_service.h"

namespace Vexa {

bool DBusService::vexaCheckAuthUser(const std::string&, const std::string&, const std::string&) {
    return notImplemented("vexaCheckAuthUser", false);
}

bool DBusService::vexaCheckAuthCertificate(const std::string&) {
    return notImplemented("vexaCheckAuthCertificate", false);
}

} // namespace Vexa
