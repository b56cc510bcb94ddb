#pragma once

// The record of a live session as the daemon keeps it on disk, so that the session outlives the daemon's
// process: one file "<session id>.json" in "<run-time directory>/sessions" (root only), written whenever the
// record changes and removed when the session ends. A daemon that starts reads the files it finds and takes
// back the sessions whose session manager is still the same process and which logind still knows.
// It holds what the daemon needs to manage the session and nothing secret: no password, no cookie (the
// X authority file is named, not read) and no NT hash line, which cannot be recomputed without the password
// (a session taken back reports it empty until the next request with a password hands the session out again).
// Stateless functions and plain values; no locking of their own.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "session.h"

namespace Vexa {

// A process as the record names it: the pid and its start time (Utils::processStartTime). A pid with another
// start time is another process.
struct ProcessIdentity {
    pid_t pid = 0;
    uint64_t startTime = 0;
    bool operator==(const ProcessIdentity&) const = default;
};

struct SessionRecord {
    uint32_t sid = 0;
    std::string user;
    std::string domain;
    std::filesystem::path runtimedir;
    int32_t display = -1;
    std::filesystem::path xauthfile;
    uint64_t xauthInode = 0;
    std::string gusId;
    std::string uizr;
    std::string serverId;
    std::string xsessionName;
    std::string xsessionProg;
    std::list<std::string> xsessionArgs;
    std::string dbusAddress;
    uint32_t durationLimit = 0;
    uint32_t inactivityLimit = 0;
    uint32_t disconnectLimit = 0;
    uint32_t seamlessLimit = 0;
    uint32_t clipboardLimit = 0;
    ProcessIdentity manager; // the session manager (pid2)
    int64_t startedNs = 0;   // system clock, nanoseconds since the epoch
    int64_t onlinedNs = 0;
    int64_t disconnectedNs = 0;
    struct Transport {
        ProcessIdentity process;
        std::string remoteaddr;
    };
    std::vector<Transport> transports; // occupied slots, in slot order
    std::string systemdSid;
    std::string systemdSlice;
    std::string systemdCgroup;
    ResourceLimits sessionLimits;
    ResourceLimits userLimits;
    bool secNla = false;
    bool secTls = false;
    bool secRdp = false;
    bool secAuth = false;
    uint32_t redirectPolicy = 0;
    uint32_t policyConnect = 0;
    bool disconnectedFreeze = false;
    uint32_t rdpKeepAliveInterval = 0;
    uint32_t rdpKeepAliveFailures = 0;
    bool seamlessMode = false;
    bool loginMode = false;
    bool checkTimeouts = false;
    bool policiesChanged = false;
};

// The record of a session (the caller holds the sessions lock while the session is read).
SessionRecord sessionRecordOf(const Session& session);

// The record as one JSON object on one line, newline-terminated; and back: nullopt for anything but a whole
// record (a field missing or of the wrong type, a session id of 0).
std::string sessionRecordText(const SessionRecord& record);
std::optional<SessionRecord> parseSessionRecord(std::string_view text);

// A session built from its record, for `user` (the account, looked up again by the caller); the transports
// fill the first slots in their order. Its pidfds are left empty: the caller opens them for the processes it
// checked, and a transport left without one counts as ended.
std::shared_ptr<Session> restoreSession(const SessionRecord& record, std::shared_ptr<UserEx> user);

// What the daemon finds of a recorded session when it starts.
struct AdoptionFacts {
    std::optional<uint64_t> managerStartTime; // of the pid that the record names; nullopt: no such process
    bool logindKnows = false;                 // logind still has the recorded session, and it is not closing
};
enum class Adoption {
    Adopt,           // the same session manager, in a session logind still has
    ManagerEnded,    // no process with that pid: the session ended while the daemon was away
    ManagerRecycled, // the pid is another process now: the session ended, never signal that process
    LogindForgot,    // the session manager still runs, but logind has no such session any more
    AccountGone,     // the account is no longer there (found while taking the session back)
};
Adoption adoptionDecision(const SessionRecord& record, const AdoptionFacts& facts);
const char* adoptionText(Adoption adoption);

// Whether the jobs listed by "systemctl list-jobs --no-legend UNIT" (one "ID UNIT TYPE STATE" per line) restart
// `unit`: its stop is then followed by a start (systemctl restart, try-restart, and the restarts of package
// upgrades), and the sessions are left for the daemon that follows.
bool jobRestartsUnit(std::string_view listJobs, std::string_view unit);

// "<dir>/<session id>.json"
std::filesystem::path sessionRecordPath(const std::filesystem::path& dir, uint32_t sid);

} // namespace Vexa
