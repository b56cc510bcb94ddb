// Per-session redirect, keep-alive and security policies, and their defaults.

#include "dbus_service.h"
#include "session/redirect_policy.h"

namespace Vexa {

void DBusService::vexaRdpSecurityPolicy(const uint32_t&, const bool&, const bool&, const bool&) {
    notImplemented("vexaRdpSecurityPolicy");
}

void DBusService::vexaSessionPolicyRedirectPrinter(const int32_t&, const bool&) {
    notImplemented("vexaSessionPolicyRedirectPrinter");
}

void DBusService::vexaSessionPolicyRedirectAudio(const int32_t&, const bool&) {
    notImplemented("vexaSessionPolicyRedirectAudio");
}

void DBusService::vexaSessionPolicyRedirectMicrophone(const int32_t&, const bool&) {
    notImplemented("vexaSessionPolicyRedirectMicrophone");
}

void DBusService::vexaSessionPolicyRedirectClipboard(const int32_t&, const bool&, const bool&) {
    notImplemented("vexaSessionPolicyRedirectClipboard");
}

void DBusService::vexaSessionPolicyRedirectClipboardFile(const int32_t&, const bool&) {
    notImplemented("vexaSessionPolicyRedirectClipboardFile");
}

void DBusService::vexaSessionPolicyRedirectClipboardLimit(const int32_t&, const uint32_t&) {
    notImplemented("vexaSessionPolicyRedirectClipboardLimit");
}

void DBusService::vexaSessionPolicyRedirectDrive(const int32_t&, const bool&) {
    notImplemented("vexaSessionPolicyRedirectDrive");
}

void DBusService::vexaSessionPolicyRedirectSmartcard(const int32_t&, const bool&) {
    notImplemented("vexaSessionPolicyRedirectSmartcard");
}

bool DBusService::vexaPolicyRedirectPrinterDefault() {
    return boundary("vexaPolicyRedirectPrinterDefault", false, [this] { return defaults().redirect.printer; });
}

bool DBusService::vexaPolicyRedirectDriveDefault() {
    return boundary("vexaPolicyRedirectDriveDefault", false, [this] { return defaults().redirect.drive; });
}

bool DBusService::vexaPolicyRedirectSmartcardDefault() {
    return boundary("vexaPolicyRedirectSmartcardDefault", false, [this] { return defaults().redirect.smartcard; });
}

bool DBusService::vexaPolicyRedirectAudioDefault() {
    return boundary("vexaPolicyRedirectAudioDefault", false, [this] { return defaults().redirect.audio; });
}

bool DBusService::vexaPolicyRedirectMicrophoneDefault() {
    return boundary("vexaPolicyRedirectMicrophoneDefault", false, [this] { return defaults().redirect.microphone; });
}

uint32_t DBusService::vexaPolicyRedirectClipboardDefault() {
    return boundary("vexaPolicyRedirectClipboardDefault", 0u,
                    [this] { return clipboardPolicyWord(defaults().redirect); });
}

bool DBusService::vexaPolicyRedirectClipboardFileDefault() {
    return boundary("vexaPolicyRedirectClipboardFileDefault", false,
                    [this] { return defaults().redirect.clipboardFile; });
}

uint32_t DBusService::vexaPolicyRedirectClipboardLimitDefault() {
    return boundary("vexaPolicyRedirectClipboardLimitDefault", 0u, [this] { return defaults().clipboardLimit; });
}

uint64_t DBusService::vexaTransportDisplayPolicyRedirect(const uint32_t&) {
    return notImplemented("vexaTransportDisplayPolicyRedirect", uint64_t{0});
}

uint64_t DBusService::vexaTransportDisplayRdpKeepAlive(const uint32_t&) {
    return notImplemented("vexaTransportDisplayRdpKeepAlive", uint64_t{0});
}

void DBusService::vexaSessionPolicyRdpKeepAlive(const int32_t&, const uint32_t&, const uint32_t&) {
    notImplemented("vexaSessionPolicyRdpKeepAlive");
}

uint64_t DBusService::vexaPolicyRdpKeepAliveDefault() {
    return boundary("vexaPolicyRdpKeepAliveDefault", uint64_t{0}, [this] {
        const auto current = defaults();
        return packPair(current.keepAliveFailures, current.keepAliveInterval);
    });
}

} // namespace Vexa
