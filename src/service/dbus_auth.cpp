// Credential checks.

#include <cstring>
#include <optional>

#include "auth/openssl.h"
#include "start/pam_service.h"
#include "dbus_service.h"

namespace Vexa {

void DBusService::replyPasswordCheck(const char* method, const ReplyPtr<bool>& reply, const std::string& service,
                                     const std::string& user, std::string pass, const std::string& caller) {
    replyFromWorker(
        method, reply, false,
        [this, service, user, pass = std::move(pass), caller]() mutable {
            const bool accepted = checkPasswordWith(service, user, pass);
            explicit_bzero(pass.data(), pass.size());
            throttleOutcome(user, caller, accepted);
            return accepted;
        },
        throttleSlot(method, user, caller));
}

void DBusService::vexaCheckAuthUserAuthorized(sdbus::Result<bool>&& result, std::string user, std::string pass,
                                              std::string service) {
    const char* self = "vexaCheckAuthUser";
    answerAsync(self, std::move(result), false, [&](const ReplyPtr<bool>& reply) {
        info("%s: user: %s, service: %s", self, user.c_str(), service.c_str());
        const auto caller = callerName();

        const auto tokenAccepted = consumeTransportToken(user, pass);
        if (tokenAccepted) {
            const char* answer = *tokenAccepted ? "TRUE" : "FALSE";
            const char* format = "%s: transport token present, check it for user: %s, result: %s";
            if (*tokenAccepted) {
                info(format, self, user.c_str(), answer);
                sendReply(self, *reply, true);
                return;
            }
            warning(format, self, user.c_str(), answer);
        }

        replyPasswordCheck(self, reply, service.empty() ? "vexa" : service, user, std::move(pass), caller);
    });
}

void DBusService::vexaCheckAuthUser(sdbus::Result<bool>&& result, std::string user, std::string pass,
                                    std::string service) {
    authorizedCall("vexaCheckAuthUser", std::move(result), &DBusService::vexaCheckAuthUserAuthorized, std::move(user),
                   std::move(pass), std::move(service));
}

bool DBusService::vexaCheckAuthCertificate(const std::string& pemcert) {
    return serve("vexaCheckAuthCertificate", false, [&] {
        const auto caFiles = configuration()->getStringList("login:ca:chains");
        return Openssl::checkCertificateChain("vexaCheckAuthCertificate", pemcert, caFiles);
    });
}

} // namespace Vexa
