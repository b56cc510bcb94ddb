// Credential checks.

#include <optional>

#include "auth/openssl.h"
#include "start/pam_service.h"
#include "dbus_service.h"

namespace Vexa {

bool DBusService::vexaCheckAuthUser(const std::string& user, const std::string& pass, const std::string& service) {
    return boundary("vexaCheckAuthUser", false, [&] {
        info("%s: user: %s, service: %s", "vexaCheckAuthUser", user.c_str(), service.c_str());

        const auto tokenAccepted = consumeTransportToken(user, pass);
        if (tokenAccepted) {
            const char* result = *tokenAccepted ? "TRUE" : "FALSE";
            const char* format = "%s: transport token present, check it for user: %s, result: %s";
            if (*tokenAccepted) {
                info(format, "vexaCheckAuthUser", user.c_str(), result);
                return true;
            }
            warning(format, "vexaCheckAuthUser", user.c_str(), result);
        }

        PamService pam(service.empty() ? "vexa" : service, user, pass);
        return pam.checkAuthenticate();
    });
}

bool DBusService::vexaCheckAuthCertificate(const std::string& pemcert) {
    return boundary("vexaCheckAuthCertificate", false, [&] {
        const auto caFiles = configuration()->getStringList("login:ca:chains");
        return Openssl::checkCertificateChain("vexaCheckAuthCertificate", pemcert, caFiles);
    });
}

} // namespace Vexa
