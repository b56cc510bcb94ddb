#pragma once

// Admission and registration of new sessions, safe for any number of starts at once. Admission, the limits,
// the display number, the session id and the registration are one critical section under the sessions lock,
// so concurrent starts see exact counts and never share a display or an id. A session is registered while it
// is still starting; a second request for the same user and session name waits for the first one's outcome
// and is then handed that session (if it runs) or admitted afresh (if it failed): never two X servers for one
// session. What reaches outside the process (PAM, the session manager, logind, files) is behind StartSteps.
// Thread-safe; start() blocks its caller (a start worker) until the start is done.

#include <cstdint>
#include <future>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "auth/admission.h"
#include "common/json_config.h"
#include "session/registry.h"
#include "session/service_defaults.h"

namespace Vexa {

// Arguments of a session start.
struct StartSessionArgs {
    std::string user;
    std::string domain;
    uint8_t depth = 24;
    uint16_t width = 1280;
    uint16_t height = 1024;
    std::string sessionName;
    std::string program;
    std::list<std::string> args;
    RunMode mode = RunMode::UserSessionRequest;
    // The caller was accepted without a password (a transport's one-time token): PAM runs the service
    // without authentication.
    bool noauth = false;
    // Checked by PAM in the session manager; absent only with `noauth` or for the login helper's session.
    std::optional<std::string> password;
};

struct StartSessionResult {
    std::shared_ptr<Session> session; // empty on refusal
    StartStatus status = StartStatus::Success;
    bool authFailed = false; // PAM refused the password
};

// The service's settings at the moment a start begins.
struct StartContext {
    AdmissionPolicy policy;
    AdmissionLookups lookups;
    ServiceDefaults defaults;
    std::string runtimeTemplate = "/run/user/%{uid}"; // "runtime:xdg"
    std::shared_ptr<const JsonConfig> config;         // the whole configuration, for the steps
};

// The steps of a start that reach outside the process; the service implements them, tests fake them. Called
// without the sessions lock, from the thread that runs the start.
class StartSteps {
public:
    virtual ~StartSteps() = default;
    // Whether `password` is the password of `user`, who asks for a running session again.
    virtual bool checkPassword(const std::string& user, const std::string& password, const StartContext& context) = 0;
    // Hands a running session out again: thaws it, brings its display to the requested size and opens its X
    // authority file to its group.
    virtual void reuse(Session& session, const StartSessionArgs& args, const StartContext& context) = 0;
    // Starts a registered session, from its run-time directory to its session bus. The result's session is
    // the session when it runs, empty on failure (then the starter takes it out of the registry).
    virtual StartSessionResult launch(const std::shared_ptr<Session>& session, const StartSessionArgs& args,
                                      const StartContext& context) = 0;
};

class SessionStarter {
public:
    SessionStarter(SessionRegistry& sessions, StartSteps& steps) : sessions(sessions), steps(steps) {}

    // Admits the request and starts a session or hands a running one out again. Throws what the steps throw
    // (the session is out of the registry then).
    StartSessionResult start(const StartSessionArgs& args, const StartContext& context);

    // Whether the session is still being started: its start will take it out of the registry if it fails.
    // Call with the sessions lock held (inside SessionRegistry::locked).
    bool startingLocked(uint32_t id) const { return starting.contains(id); }

private:
    using SessionPtr = SessionRegistry::SessionPtr;

    // What the critical section decided.
    struct Admitted {
        StartStatus status = StartStatus::Success;
        SessionPtr session;
        bool reuse = false;
        std::shared_future<void> startingElsewhere; // valid: wait for that start, then admit again
    };

    Admitted admit(const StartSessionArgs& args, const StartContext& context);
    uint32_t nextSessionId(const SessionRegistry::Map& map);
    StartSessionResult reuse(const SessionPtr& session, const StartSessionArgs& args, const StartContext& context);
    // Takes a failed session out of the registry (the caller drops it outside the lock) and ends its start.
    void finish(const SessionPtr& session, bool running);

    SessionRegistry& sessions;
    StartSteps& steps;
    // Guarded by the sessions lock:
    uint32_t lastSessionId = 0; // the id handed out last
    // Sessions still starting: their start fulfils the promise when it is done, whatever the outcome.
    struct Starting {
        std::promise<void> promise;
        std::shared_future<void> done = promise.get_future().share();
    };
    std::unordered_map<uint32_t, Starting> starting;
};

} // namespace Vexa
