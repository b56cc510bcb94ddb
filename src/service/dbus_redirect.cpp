// Per-session redirect, keep-alive and security policies, and their defaults.

#include "dbus_service.h"
#include "session/redirect_policy.h"

namespace Vexa {

namespace {

const char* boolText(bool value) {
    return value ? "true" : "false";
}

// The flag of the defaults that goes with a bit.
bool& defaultFlag(RedirectDefaults& flags, RedirectBit bit) {
    switch (bit) {
    case RedirectBit::Printer:
        return flags.printer;
    case RedirectBit::Drive:
        return flags.drive;
    case RedirectBit::Smartcard:
        return flags.smartcard;
    case RedirectBit::ClipboardServer:
        return flags.clipboardServer;
    case RedirectBit::ClipboardClient:
        return flags.clipboardClient;
    case RedirectBit::ClipboardFile:
        return flags.clipboardFile;
    case RedirectBit::Microphone:
        return flags.microphone;
    case RedirectBit::Audio:
        break;
    }
    return flags.audio;
}

} // namespace

void DBusService::setRedirectPolicy(const char* method, int32_t session, RedirectBit bit, bool enable) {
    boundary(method, [&] {
        info("%s: session id: %d, policy: %s", method, session, boolText(enable));
        setSessionPolicy(
            session, true,
            [&](Session& entry) { entry.redirectPolicy = redirectSet(entry.redirectPolicy, bit, enable); },
            [&](ServiceDefaults& defs) { defaultFlag(defs.redirect, bit) = enable; });
    });
}

void DBusService::vexaRdpSecurityPolicy(const uint32_t& session, const bool& nla, const bool& tls, const bool& rdp) {
    serve("vexaRdpSecurityPolicy", [&] {
        info("%s: session id: %u, nla: %d, tls: %d, rdp: %d", "vexaRdpSecurityPolicy", session, nla, tls, rdp);
        if (const auto found = findSession(session)) {
            sessions.locked([&](SessionRegistry::Map&) {
                found->secNla = nla;
                found->secTls = tls;
                found->secRdp = rdp;
            });
        }
    });
}

void DBusService::vexaSessionPolicyRedirectPrinterAuthorized(const int32_t& session, const bool& enable) {
    setRedirectPolicy("vexaSessionPolicyRedirectPrinter", session, RedirectBit::Printer, enable);
}

void DBusService::vexaSessionPolicyRedirectPrinter(sdbus::Result<>&& result, int32_t session, bool enable) {
    authorizedCall("vexaSessionPolicyRedirectPrinter", std::move(result),
                   &DBusService::vexaSessionPolicyRedirectPrinterAuthorized, session, enable);
}

void DBusService::vexaSessionPolicyRedirectAudioAuthorized(const int32_t& session, const bool& enable) {
    setRedirectPolicy("vexaSessionPolicyRedirectAudio", session, RedirectBit::Audio, enable);
}

void DBusService::vexaSessionPolicyRedirectAudio(sdbus::Result<>&& result, int32_t session, bool enable) {
    authorizedCall("vexaSessionPolicyRedirectAudio", std::move(result),
                   &DBusService::vexaSessionPolicyRedirectAudioAuthorized, session, enable);
}

void DBusService::vexaSessionPolicyRedirectMicrophoneAuthorized(const int32_t& session, const bool& enable) {
    setRedirectPolicy("vexaSessionPolicyRedirectMicrophone", session, RedirectBit::Microphone, enable);
}

void DBusService::vexaSessionPolicyRedirectMicrophone(sdbus::Result<>&& result, int32_t session, bool enable) {
    authorizedCall("vexaSessionPolicyRedirectMicrophone", std::move(result),
                   &DBusService::vexaSessionPolicyRedirectMicrophoneAuthorized, session, enable);
}

void DBusService::vexaSessionPolicyRedirectClipboardAuthorized(const int32_t& session, const bool& client2server,
                                                               const bool& server2client) {
    const char* method = "vexaSessionPolicyRedirectClipboard";
    boundary(method, [&] {
        info("%s: session id: %d, client2server: %s, server2client: %s", method, session, boolText(client2server),
             boolText(server2client));
        setSessionPolicy(
            session, true,
            [&](Session& entry) {
                entry.redirectPolicy = redirectSet(entry.redirectPolicy, RedirectBit::ClipboardServer, client2server);
                entry.redirectPolicy = redirectSet(entry.redirectPolicy, RedirectBit::ClipboardClient, server2client);
            },
            [&](ServiceDefaults& defs) {
                defs.redirect.clipboardServer = client2server;
                defs.redirect.clipboardClient = server2client;
            });
    });
}

void DBusService::vexaSessionPolicyRedirectClipboard(sdbus::Result<>&& result, int32_t session, bool client2server,
                                                     bool server2client) {
    authorizedCall("vexaSessionPolicyRedirectClipboard", std::move(result),
                   &DBusService::vexaSessionPolicyRedirectClipboardAuthorized, session, client2server, server2client);
}

void DBusService::vexaSessionPolicyRedirectClipboardFileAuthorized(const int32_t& session, const bool& enable) {
    setRedirectPolicy("vexaSessionPolicyRedirectClipboardFile", session, RedirectBit::ClipboardFile, enable);
}

void DBusService::vexaSessionPolicyRedirectClipboardFile(sdbus::Result<>&& result, int32_t session, bool enable) {
    authorizedCall("vexaSessionPolicyRedirectClipboardFile", std::move(result),
                   &DBusService::vexaSessionPolicyRedirectClipboardFileAuthorized, session, enable);
}

void DBusService::vexaSessionPolicyRedirectClipboardLimitAuthorized(const int32_t& session, const uint32_t& limit) {
    const char* method = "vexaSessionPolicyRedirectClipboardLimit";
    boundary(method, [&] {
        info("%s: session id: %d, limit: %ubytes", method, session, limit);
        setSessionPolicy(
            session, true, [&](Session& entry) { entry.clipboardLimit = limit; },
            [&](ServiceDefaults& defs) { defs.clipboardLimit = limit; });
    });
}

void DBusService::vexaSessionPolicyRedirectClipboardLimit(sdbus::Result<>&& result, int32_t session, uint32_t limit) {
    authorizedCall("vexaSessionPolicyRedirectClipboardLimit", std::move(result),
                   &DBusService::vexaSessionPolicyRedirectClipboardLimitAuthorized, session, limit);
}

void DBusService::vexaSessionPolicyRedirectDriveAuthorized(const int32_t& session, const bool& enable) {
    setRedirectPolicy("vexaSessionPolicyRedirectDrive", session, RedirectBit::Drive, enable);
}

void DBusService::vexaSessionPolicyRedirectDrive(sdbus::Result<>&& result, int32_t session, bool enable) {
    authorizedCall("vexaSessionPolicyRedirectDrive", std::move(result),
                   &DBusService::vexaSessionPolicyRedirectDriveAuthorized, session, enable);
}

void DBusService::vexaSessionPolicyRedirectSmartcardAuthorized(const int32_t& session, const bool& enable) {
    setRedirectPolicy("vexaSessionPolicyRedirectSmartcard", session, RedirectBit::Smartcard, enable);
}

void DBusService::vexaSessionPolicyRedirectSmartcard(sdbus::Result<>&& result, int32_t session, bool enable) {
    authorizedCall("vexaSessionPolicyRedirectSmartcard", std::move(result),
                   &DBusService::vexaSessionPolicyRedirectSmartcardAuthorized, session, enable);
}

bool DBusService::vexaPolicyRedirectPrinterDefault() {
    return serve("vexaPolicyRedirectPrinterDefault", false, [this] { return defaults().redirect.printer; });
}

bool DBusService::vexaPolicyRedirectDriveDefault() {
    return serve("vexaPolicyRedirectDriveDefault", false, [this] { return defaults().redirect.drive; });
}

bool DBusService::vexaPolicyRedirectSmartcardDefault() {
    return serve("vexaPolicyRedirectSmartcardDefault", false, [this] { return defaults().redirect.smartcard; });
}

bool DBusService::vexaPolicyRedirectAudioDefault() {
    return serve("vexaPolicyRedirectAudioDefault", false, [this] { return defaults().redirect.audio; });
}

bool DBusService::vexaPolicyRedirectMicrophoneDefault() {
    return serve("vexaPolicyRedirectMicrophoneDefault", false, [this] { return defaults().redirect.microphone; });
}

uint32_t DBusService::vexaPolicyRedirectClipboardDefault() {
    return serve("vexaPolicyRedirectClipboardDefault", 0u, [this] { return clipboardPolicyWord(defaults().redirect); });
}

bool DBusService::vexaPolicyRedirectClipboardFileDefault() {
    return serve("vexaPolicyRedirectClipboardFileDefault", false, [this] { return defaults().redirect.clipboardFile; });
}

uint32_t DBusService::vexaPolicyRedirectClipboardLimitDefault() {
    return serve("vexaPolicyRedirectClipboardLimitDefault", 0u, [this] { return defaults().clipboardLimit; });
}

uint64_t DBusService::vexaTransportDisplayPolicyRedirect(const uint32_t& display) {
    return serve("vexaTransportDisplayPolicyRedirect", uint64_t{0}, [&] {
        info("%s: display id: %u", "vexaTransportDisplayPolicyRedirect", display);
        const auto found = findDisplaySession(display);
        if (!found) {
            return uint64_t{0};
        }
        return sessions.locked([&](SessionRegistry::Map&) {
            return packPair(found->redirectPolicy | redirectTransportMarker, found->clipboardLimit);
        });
    });
}

uint64_t DBusService::vexaTransportDisplayRdpKeepAlive(const uint32_t& display) {
    return serve("vexaTransportDisplayRdpKeepAlive", uint64_t{0}, [&] {
        info("%s: display id: %u", "vexaTransportDisplayRdpKeepAlive", display);
        const auto found = findDisplaySession(display);
        if (!found) {
            return uint64_t{0};
        }
        return sessions.locked(
            [&](SessionRegistry::Map&) { return packPair(found->rdpKeepAliveFailures, found->rdpKeepAliveInterval); });
    });
}

void DBusService::vexaSessionPolicyRdpKeepAliveAuthorized(const int32_t& session, const uint32_t& interval,
                                                          const uint32_t& failures) {
    const char* method = "vexaSessionPolicyRdpKeepAlive";
    boundary(method, [&] {
        // The line shows the interval only; "failures: u" is part of its text.
        info("%s: session id: %d, interval: %u, failures: u", method, session, interval);
        setSessionPolicy(
            session, true,
            [&](Session& entry) {
                entry.rdpKeepAliveInterval = interval;
                entry.rdpKeepAliveFailures = failures;
            },
            [&](ServiceDefaults& defs) {
                defs.keepAliveInterval = interval;
                defs.keepAliveFailures = failures;
            });
    });
}

void DBusService::vexaSessionPolicyRdpKeepAlive(sdbus::Result<>&& result, int32_t session, uint32_t interval,
                                                uint32_t failures) {
    authorizedCall("vexaSessionPolicyRdpKeepAlive", std::move(result),
                   &DBusService::vexaSessionPolicyRdpKeepAliveAuthorized, session, interval, failures);
}

uint64_t DBusService::vexaPolicyRdpKeepAliveDefault() {
    return serve("vexaPolicyRdpKeepAliveDefault", uint64_t{0}, [this] {
        const auto current = defaults();
        return packPair(current.keepAliveFailures, current.keepAliveInterval);
    });
}

} // namespace Vexa
