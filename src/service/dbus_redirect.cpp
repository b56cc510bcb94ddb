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
    boundary("vexaRdpSecurityPolicy", [&] {
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

void DBusService::vexaSessionPolicyRedirectPrinter(const int32_t& session, const bool& enable) {
    setRedirectPolicy("vexaSessionPolicyRedirectPrinter", session, RedirectBit::Printer, enable);
}

void DBusService::vexaSessionPolicyRedirectAudio(const int32_t& session, const bool& enable) {
    setRedirectPolicy("vexaSessionPolicyRedirectAudio", session, RedirectBit::Audio, enable);
}

void DBusService::vexaSessionPolicyRedirectMicrophone(const int32_t& session, const bool& enable) {
    setRedirectPolicy("vexaSessionPolicyRedirectMicrophone", session, RedirectBit::Microphone, enable);
}

void DBusService::vexaSessionPolicyRedirectClipboard(const int32_t& session, const bool& client2server,
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

void DBusService::vexaSessionPolicyRedirectClipboardFile(const int32_t& session, const bool& enable) {
    setRedirectPolicy("vexaSessionPolicyRedirectClipboardFile", session, RedirectBit::ClipboardFile, enable);
}

void DBusService::vexaSessionPolicyRedirectClipboardLimit(const int32_t& session, const uint32_t& limit) {
    const char* method = "vexaSessionPolicyRedirectClipboardLimit";
    boundary(method, [&] {
        info("%s: session id: %d, limit: %ubytes", method, session, limit);
        setSessionPolicy(
            session, true, [&](Session& entry) { entry.clipboardLimit = limit; },
            [&](ServiceDefaults& defs) { defs.clipboardLimit = limit; });
    });
}

void DBusService::vexaSessionPolicyRedirectDrive(const int32_t& session, const bool& enable) {
    setRedirectPolicy("vexaSessionPolicyRedirectDrive", session, RedirectBit::Drive, enable);
}

void DBusService::vexaSessionPolicyRedirectSmartcard(const int32_t& session, const bool& enable) {
    setRedirectPolicy("vexaSessionPolicyRedirectSmartcard", session, RedirectBit::Smartcard, enable);
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

uint64_t DBusService::vexaTransportDisplayPolicyRedirect(const uint32_t& display) {
    return boundary("vexaTransportDisplayPolicyRedirect", uint64_t{0}, [&] {
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
    return boundary("vexaTransportDisplayRdpKeepAlive", uint64_t{0}, [&] {
        info("%s: display id: %u", "vexaTransportDisplayRdpKeepAlive", display);
        const auto found = findDisplaySession(display);
        if (!found) {
            return uint64_t{0};
        }
        return sessions.locked(
            [&](SessionRegistry::Map&) { return packPair(found->rdpKeepAliveFailures, found->rdpKeepAliveInterval); });
    });
}

void DBusService::vexaSessionPolicyRdpKeepAlive(const int32_t& session, const uint32_t& interval,
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

uint64_t DBusService::vexaPolicyRdpKeepAliveDefault() {
    return boundary("vexaPolicyRdpKeepAliveDefault", uint64_t{0}, [this] {
        const auto current = defaults();
        return packPair(current.keepAliveFailures, current.keepAliveInterval);
    });
}

} // namespace Vexa
