#pragma once

// One user's X display with its session manager, attached transports, limits and policies.
// Owned by the registry through a shared pointer; other code holds shared pointers only while it works on
// the session. Fields reached through the registry are guarded by the sessions lock (SessionRegistry).

#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>

#include "connect_policy.h"
#include "limits/resource_limits.h"
#include "service_defaults.h"
#include "transport_info.h"
#include "user_info.h"
#include "xcb/connector.h"
#include "xcb/layout.h"

namespace Vexa {

inline constexpr size_t transportSlots = 4;

class Session {
public:
    using SystemTime = std::chrono::system_clock::time_point;
    using SteadyTime = std::chrono::steady_clock::time_point;

    // A new session takes its limits and policies from the service defaults; it is started and online now.
    Session(uint32_t id, std::shared_ptr<UserEx> user, const ServiceDefaults& defaults);
    // Tear-down, on whichever thread drops the last reference: the transports, the session manager and the
    // remote-assistance program receive SIGTERM, the X authority file and the bus address file are removed, and the
    // user's profile is unmounted when this was the user's last session (a busy profile is left to a background job),
    // and its record file is removed. A session `kept` by a restarting daemon is left as it is.
    virtual ~Session();

    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Stores the transport (with its pidfd) in the first free slot (pid 0); with all four taken nothing is
    // stored.
    void addConnectInfo(int pid, const std::string& remoteaddr, Utils::UniqueFd pidfd);
    // The slot holding this pid, if any.
    TransportInfo* findConnectInfo(int pid);
    // Some slot holds a running transport.
    bool haveActiveConnects() const;
    // Resets all four slots in order; running transports receive SIGTERM.
    void resetAllConnects();

    // The systemd scope logind made for the session ("session-<logind id>.scope"); empty until logind knows it.
    std::string scopeUnit() const;

    // Resource limits kept for the report: at user level (shared by the user's sessions; setting a control
    // there removes the session's own override of it) or at session level. An empty value erases the control.
    void resourceControlSet(ResourceControl control, const std::string& value, bool userLevel);
    // The value stored at that level, "" when none; a CPU quota always ends in "%".
    std::string resourceControlValue(ResourceControl control, bool userLevel) const;
    // resourceControlSet for every entry of `limits`.
    void resourceLimitsJoin(const ResourceLimits& limits, bool userLevel);

    // Environment of every program started inside the session: display, X authority, run-time directory,
    // user, and the smart-card socket of the display.
    std::list<std::string> environments() const;

    // File that receives the address of the session's own D-Bus bus: in the user's run-time directory, which
    // the session's programs may write, named after the session id.
    std::filesystem::path dbusSessionPath() const;

    // Freezes (true) or thaws (false) every process of the session through the cgroup freezer. A freeze
    // happens only when no transport runs and "disconnected:freeze" is set; a thaw is always written. Does
    // nothing, silently, when the session's cgroup has no freezer file.
    void sessionFreeze(bool freeze) const;
    // The session's cgroup reports its processes frozen.
    bool frozen() const;

    // Connects to the session's X server with the session's X authority cookie, for its geometry; on failure
    // (logged) the session has no connector. The caller holds geometryLock.
    bool createXcbConnector();
    // Brings the session's display to the layout (xcb/display_geometry.h) through its connector, made or made again
    // as needed; false (logged) when the display could not be reached or refused the layout. Takes geometryLock.
    bool updateGeometry(const Xcb::Layout& layout);

    // Sends SIGTERM to the session manager through its pidfd, after thawing the session: a frozen process
    // would not act on it until a transport came back. False when there is nothing to signal.
    bool terminate() const;

    const uint32_t sid;
    std::shared_ptr<UserEx> user;

    int32_t display = -1; // X display number; -1 until one is chosen
    std::filesystem::path xauthfile;
    // The file this session created at `xauthfile` (st_ino; 0: none). A later session on the same display makes a
    // new file of the same name while this one may still be torn down: only our own file is removed.
    ino_t xauthInode = 0;
    std::string gusId;
    std::string uizr;
    std::string serverId; // of the request that started the session
    std::string xsessionName;
    std::string xsessionProg;
    std::list<std::string> xsessionArgs;
    std::string dbusAddress;

    uint32_t durationLimit = 0;
    uint32_t inactivityLimit = 0;
    uint32_t disconnectLimit = 0;
    uint32_t seamlessLimit = 0;
    uint32_t clipboardLimit = 0;

    int32_t pid2 = 0;             // session manager; > 0 while it runs
    uint64_t pid2Start = 0;       // its start time (record.h), taken while it could not have been reaped
    Utils::UniqueFd pid2fd;       // pidfd of pid2, taken before it could be reaped
    int32_t assistance = 0;       // remote-assistance process, 0 if none
    Utils::UniqueFd assistanceFd; // pidfd of `assistance`

    SystemTime startedTimepoint;
    SystemTime onlinedTimepoint;
    SystemTime disconnectedTimepoint{}; // epoch: not disconnected

    std::array<TransportInfo, transportSlots> transports;

    std::string systemdSid;
    std::optional<uint32_t> systemdSessionNumber;
    std::string systemdSlice;
    std::string systemdCgroup;
    ResourceLimits sessionLimits; // limits set at session level

    bool secNla = false;
    bool secTls = false;
    bool secRdp = false;
    bool secAuth = false;

    uint32_t redirectPolicy = 0;
    ConnectPolicy policyConnect = ConnectPolicy::PrevReplace;
    bool disconnectedFreeze = false;
    uint32_t rdpKeepAliveInterval = 0;
    uint32_t rdpKeepAliveFailures = 0;
    bool seamlessMode = false;
    bool loginMode = false;

    // The connection to the session's X server that serves its geometry requests, made on first use and made again
    // after it broke. Guarded by geometryLock, which is held across X requests and runs of the mode-line tool; it
    // is never taken under the sessions lock, nor the sessions lock under it (display and xauthfile do not change
    // once the session runs).
    std::mutex geometryLock;
    std::unique_ptr<Xcb::Connector> xcbConnector;

    // The session's record file (record.h) once one was written. Guarded by the records lock (RecordStore), not
    // the sessions lock: written there, and read by the destructor once nothing else holds the session.
    std::filesystem::path recordFile;
    // The daemon stops without ending the session (a restart): the destructor then leaves its processes, its
    // files and its record alone, for the next daemon to take back. Set by the stop sequence when no other thread
    // of the service runs, or on a session that never entered the registry; read under the sessions lock.
    bool kept = false;

    // Not saved.
    SteadyTime seamlessStopTime{}; // epoch: none
    bool checkTimeouts = false;
    bool policiesChanged = false;
};

} // namespace Vexa
