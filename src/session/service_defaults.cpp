#include "service_defaults.h"

#include <algorithm>
#include <cstdlib>

#include "redirect_policy.h"

namespace Vexa {

ServiceDefaults loadServiceDefaults(const JsonConfig& config) {
    ServiceDefaults d;
    const auto number = [&config](const char* key, int32_t def) {
        return static_cast<uint32_t>(config.getInteger(key, def));
    };
    d.debugLevel = config.getString("debug:level", "info");
    d.startTimeout = number("start:timeout", 15);
    d.seamlessTimeout = number("seamless:timeout", 60);
    d.durationTimeout = number("duration:timeout", 0);
    d.inactivityTimeout = number("inactivity:timeout", 0);
    d.disconnectTimeout = number("disconnect:timeout", 0);
    d.clipboardLimit = number("clipboard:limit", 0);
    d.keepAliveInterval = number("rdp:keepalive:interval", 0);
    d.keepAliveFailures = number("rdp:keepalive:failures", 0);
    d.redirect.drive = config.getBoolean("redirect:drive", true);
    d.redirect.printer = config.getBoolean("redirect:print", true);
    d.redirect.smartcard = config.getBoolean("redirect:smartcard", true);
    d.redirect.audio = config.getBoolean("redirect:audio", true);
    d.redirect.microphone = config.getBoolean("redirect:microphone", true);
    d.redirect.clipboardServer = config.getBoolean("clipboard:server", true);
    d.redirect.clipboardClient = config.getBoolean("clipboard:client", true);
    d.redirect.clipboardFile = config.getBoolean("clipboard:file", true);
    d.connectPolicy = connectPolicy(config.getString("connect:policy", "PrevReplace"));
    d.disconnectedFreeze = config.getBoolean("session:disconnected:freeze", false);
    d.loginHelper = config.getBoolean("login:helper", false);
    d.loginSessions = config.getBoolean("login:sessions", false);
    d.loginKeyboard = config.getBoolean("login:keyboard", false);
    d.shadowPolicy = config.getBoolean("shadow:policy", false);
    d.displayStart = static_cast<uint32_t>(std::llabs(static_cast<long long>(config.getInteger("display:start", 101))));
    d.runtimeDir = config.getString("runtime:dir", "/run/vexa");
    d.startWorkers = std::clamp<uint32_t>(number("start:workers", 8), 1, 64);
    d.throttleFailures = number("auth:throttle:failures", 3);
    d.throttleDelay = number("auth:throttle:delay", 2);
    d.throttleDelayMax = number("auth:throttle:delay:max", 30);
    d.throttleForget = number("auth:throttle:forget", 300);
    d.requestsInFlight = number("requests:caller:inflight", 4);
    d.requestsPerMinute = number("requests:caller:minute", 30);
    d.loginHelperUser = config.getString("login:helper:user", "vexa-login");
    d.rootLogin = config.getBoolean("login:root:allow", false);
    return d;
}

uint32_t redirectPolicyWord(const RedirectDefaults& flags) noexcept {
    uint32_t word = 0;
    word = redirectSet(word, RedirectBit::Printer, flags.printer);
    word = redirectSet(word, RedirectBit::Drive, flags.drive);
    word = redirectSet(word, RedirectBit::Smartcard, flags.smartcard);
    word = redirectSet(word, RedirectBit::Microphone, flags.microphone);
    word = redirectSet(word, RedirectBit::Audio, flags.audio);
    word = redirectSet(word, RedirectBit::ClipboardFile, flags.clipboardFile);
    return word | clipboardPolicyWord(flags);
}

uint32_t clipboardPolicyWord(const RedirectDefaults& flags) noexcept {
    uint32_t word = 0;
    word = redirectSet(word, RedirectBit::ClipboardServer, flags.clipboardServer);
    word = redirectSet(word, RedirectBit::ClipboardClient, flags.clipboardClient);
    return word;
}

} // namespace Vexa
