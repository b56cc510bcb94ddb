#pragma once

// Values copied from the configuration into the service at start and at every reload. New sessions take
// their limits and policies from here; D-Bus setters for "all sessions" overwrite them until the next reload.

#include <cstdint>
#include <filesystem>
#include <string>

#include "common/json_config.h"
#include "connect_policy.h"

namespace Vexa {

struct RedirectDefaults {
    bool printer = true;
    bool audio = true;
    bool microphone = true;
    bool clipboardServer = true;
    bool clipboardClient = true;
    bool clipboardFile = true;
    bool drive = true;
    bool smartcard = true;
};

struct ServiceDefaults {
    std::string debugLevel = "info";
    uint32_t startTimeout = 15;
    uint32_t seamlessTimeout = 60;
    uint32_t durationTimeout = 0;
    uint32_t inactivityTimeout = 0;
    uint32_t disconnectTimeout = 0;
    uint32_t clipboardLimit = 0;
    uint32_t keepAliveInterval = 0;
    uint32_t keepAliveFailures = 0;
    RedirectDefaults redirect;
    ConnectPolicy connectPolicy = ConnectPolicy::PrevReplace;
    bool disconnectedFreeze = false;
    bool loginHelper = false;
    bool loginSessions = false;
    bool loginKeyboard = false;
    bool shadowPolicy = false;
    uint32_t displayStart = 101;
    std::filesystem::path runtimeDir = "/run/vexa";
    uint32_t startWorkers = 8;       // session starts and password checks at once (1 to 64)
    uint32_t throttleFailures = 3;   // failed logins of a user or caller before the next are delayed; 0: never
    uint32_t throttleDelay = 2;      // s, the first delay; it doubles with every further failure
    uint32_t throttleDelayMax = 30;  // s
    uint32_t throttleForget = 300;   // s without a failure after which failures are forgotten
    uint32_t requestsInFlight = 4;   // session requests of one caller (not root) under way at once; 0: no limit
    uint32_t requestsPerMinute = 30; // session requests of one caller (not root) in any minute; 0: no limit
    std::string loginHelperUser = "vexa-login"; // the only account a login-helper session may run as
    bool rootLogin = false;                     // whether uid 0 may have a session of any kind
};

// Reads the keys in their documented order. Integers are stored as read (a negative value becomes a large
// unsigned one) except "display:start", whose absolute value is used. Wrong JSON types throw.
ServiceDefaults loadServiceDefaults(const JsonConfig& config);

// The redirect-policy word of the default flags.
uint32_t redirectPolicyWord(const RedirectDefaults& flags) noexcept;

// The clipboard directions of the default flags, as the bits of the redirect-policy word.
uint32_t clipboardPolicyWord(const RedirectDefaults& flags) noexcept;

} // namespace Vexa
