// Credential checks.

#include "auth/openssl.h"
#include "dbus_service.h"

namespace Vexa {

bool DBusService::vexaCheckAuthUser(const std::string&, const std::string&, const std::string&) {
    return notImplemented("vexaCheckAuthUser", false);
}

bool DBusService::vexaCheckAuthCertificate(const std::string& pemcert) {
    return boundary("vexaCheckAuthCertificate", false, [&] {
        const auto caFiles = configuration()->getStringList("login:ca:chains");
        return Openssl::checkCertificateChain("vexaCheckAuthCertificate", pemcert, caFiles);
    });
}

} // namespace Vexa
