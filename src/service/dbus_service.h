#pragma once

// The service object: owns the configuration, the session registry and the child table, and serves the one
// D-Bus object "/ru/kelvo/vexa". It is a thin facade: each operation unpacks its arguments, calls the
// subsystem and packs the answer; operations are defined in per-subsystem files dbus_<area>.cpp.
// Threads: D-Bus operations run on the main thread (EventLoop::run) and never wait there: the methods that
// wait (PAM, session starts) hand their work to the start workers (`startPool`) and are answered from there.
// The watcher thread runs the periodic jobs; background workers hold shared pointers to the sessions they use.

#include <atomic>
#include <condition_variable>
#include <functional>
#include <future>
#include <optional>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <chrono>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>
#include <vexa_adaptor.h>

#include "access/rate_limit.h"
#include "access/roles.h"
#include "auth/admission.h"
#include "auth/auth_throttle.h"
#include "common/json_config.h"
#include "common/logger.h"
#include "common/work_pool.h"
#include "event_loop.h"
#include "limits/resource_limits.h"
#include "metrics/counters.h"
#include "polkit.h"
#include "programs/program_list.h"
#include "session/child_table.h"
#include "session/record_store.h"
#include "session/redirect_policy.h"
#include "session/registry.h"
#include "session/service_defaults.h"
#include "session/state.h"
#include "start/session_command.h"
#include "start/session_manager.h"
#include "start/session_request.h"
#include "start/session_starter.h"
#include "xcb/layout.h"

namespace Vexa {

inline constexpr const char* serviceBusName = "ru.kelvo.vexa";
inline constexpr const char* serviceObjectPath = "/ru/kelvo/vexa";
inline constexpr const char* sessionsStoreDir = "/var/lib/vexa/sessions";
inline constexpr const char* sessionManagerProgram = VEXA_LIBEXEC_DIR "/vexa_session_manager";
// Audit record type of the session login, disconnect and logout records.
inline constexpr int auditUserSession = 1198;

// Thrown out of start() when the bus connection was lost while running, after the orderly shutdown, so that
// the process ends with a failure status and the service manager restarts it.
class bus_lost : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class DBusService : public Syslog, public sdbus::AdaptorInterfaces<ru::kelvo::vexa_adaptor>, private StartSteps {
public:
    DBusService(sdbus::IConnection& connection, const std::string& configPath, EventLoop& loop);
    ~DBusService() override;

    // Builds the bus connection and the service, runs the dispatcher until shutdown, tears down.
    static void start(const std::string& configPath);

    // Configuration.
    std::shared_ptr<const JsonConfig> configuration() const;
    void loadConfigDefaultValues();
    void reloadConfigWatcher();
    // One look at the programs file: reloads the program list when its modification time changed since the
    // last look (the first look only notes the time).
    void reloadProgramsWatcher();
    ServiceDefaults defaults() const;
    LimitsDefaults resourceDefaults() const;

    // Registry lookups (the sessions lock is taken inside).
    SessionRegistry::SessionPtr findSession(const uint32_t& id) const { return sessions.findSession(id); }
    SessionRegistry::SessionPtr findDisplaySession(const uint32_t& display) const {
        return sessions.findDisplaySession(display);
    }
    std::shared_ptr<UserEx> findUserInfo(std::string_view name) const { return sessions.findUserInfo(name); }
    std::list<SessionRegistry::SessionPtr> findUserSessions(std::string_view name) const {
        return sessions.findUserSessions(name);
    }

    // A fresh X authority file for a display of `user`, in the run-time directory, readable by "xauth:group".
    std::filesystem::path createXauthFile(uint32_t display, const std::string& user) const;

    // The saved limits and policies of the session's user (session/state.h), in the store directory.
    bool sessionSaveState(const Session* session) const { return Vexa::sessionSaveState(session, storeDir); }
    void sessionLoadState(Session* session) { Vexa::sessionLoadState(session, storeDir); }

    // Called once when the dispatcher has stopped: drops every session and ends the children still running.
    void sessionsClear();
    // Called instead of sessionsClear when the stop is a restart (restartPending) or the bus was lost: every
    // session is left running with its record written, for the next daemon to take back; the other children end.
    void sessionsKeep();
    // The service manager's job on the service's unit restarts it (systemctl restart, a package upgrade). False
    // when the service does not run as a unit or the job cannot be asked for: the stop then ends the sessions.
    bool restartPending() const;
    // Takes back the sessions of the records an earlier run left (session_survive.cpp): those whose session
    // manager is the same process and whose logind session is still there re-enter the registry, their
    // transports and session manager watched through pidfds; what is left of the others is ended and removed.
    // Called once by the constructor, before the first call is dispatched.
    void adoptSessions();

    // Admits the user and starts (or hands out again) a session; blocks the calling thread (a start worker)
    // until systemd-logind knows the new session and its bus is up (or those waits gave up, or the service
    // stops). Never throws.
    StartSessionResult startSession(const StartSessionArgs& args);

    // The metrics of ru.kelvo.vexa.Metrics (dbus_reports.cpp): counters and the registry's gauges as Prometheus text.
    std::string metricsText();

    // Watchers, run by the watcher thread only (watcherLoop).
    // Sessions whose session manager has exited leave the registry and are announced as ended.
    void stoppedChildsWatcher();
    // Transports that have ended leave their slot (one per session and pass); the disconnect is announced and
    // audited, and the session may freeze.
    void stoppedTransportWatcher();
    // Sessions past their duration or disconnect limit: logged, and their session manager told to end when
    // the limits are enforced for them.
    void timeLimitSessionsWatcher();
    // Seamless sessions left without a transport past their seamless limit are told to end, once.
    void seamlessTimeoutWatcher();

    // An audit record of the session's user; does nothing when auditing is unavailable.
    void auditUserMessage(uint32_t display, const std::string& remoteaddr, int type, const std::string& message,
                          const std::string& user, bool result) const;

    // Runs every job given to startWorker that is still queued (delays no longer apply) and waits for all.
    void waitWorkers();

    // Watcher thread body: periodic jobs while the service runs, then the stop sequence.
    void watcherLoop();

private:
    using SessionPtr = SessionRegistry::SessionPtr;

    void applyDefaults(const ServiceDefaults& next);

    // Steps of the session start (session_start.cpp), for the starter.
    bool checkPassword(const std::string& user, const std::string& password, const StartContext& context) override;
    void reuse(Session& session, const StartSessionArgs& args, const StartContext& context) override;
    StartSessionResult launch(const SessionPtr& session, const StartSessionArgs& args,
                              const StartContext& context) override;
    // The session manager of a session, started with the plan on its standard input.
    struct SessionManagerProcess {
        pid_t pid = -1;
        std::shared_future<int> status; // its raw wait status, once it has ended
        Utils::UniqueFd channel;        // what it writes back (sessionOpenedNote)
        Utils::UniqueFd pidfd;          // taken before it could be reaped
    };
    SessionManagerProcess runSessionManager(const Session* session, const SessionManagerPlan& plan);
    bool prepareSession(const SessionPtr& session, const StartSessionArgs& args, const JsonConfig& config,
                        const ServiceDefaults& defs, SessionManagerPlan& plan);
    StartSessionResult waitSessionStarted(const SessionPtr& session, SessionManagerProcess& manager,
                                          uint32_t startTimeout);
    // The address of the session's own bus: empty when it did not come up (warned), nullopt when the service
    // stops meanwhile.
    std::optional<std::string> waitSessionBus(const SessionPtr& session, int managerEnded);
    void applyFileLimits(const SessionPtr& session);
    // One record of adoptSessions: Adopt when the session is back in the registry, else why not.
    Adoption adoptSession(const SessionRecord& record, const std::filesystem::path& path);
    // A recorded session that cannot be taken back: its scope's processes are ended, its files removed.
    void cleanupRecordedSession(const SessionRecord& record, const std::filesystem::path& path, Adoption decision);
    // The session's record rewritten on a background worker (never on the bus thread).
    void saveRecordLater(const SessionPtr& session);
    // Stop sequence: SIGTERM to the children still in the table except `kept`, then waits for them.
    void endChildren(const char* func, const std::vector<pid_t>& kept);
    void announceSessionEnd(SessionPtr session);

    // Session requests (dbus_requests.cpp), run by a start worker: 0 and the session, or the request's negative
    // reply. A password refused by PAM counts against `caller` and the user in the throttle.
    int32_t requestSession(const StartSessionArgs& args, const std::string& caller, SessionPtr& session);
    // The rest of a vexaSessionRequest on its worker: the start, the request's values stored in the session, the
    // proxy told; the session id or the reply.
    int32_t finishSessionRequest(const StartSessionArgs& args, const SessionRequest& request,
                                 const std::string& caller);
    // requestSession, then the proxy is told to let the connection through; the session id or the reply.
    int32_t requestAllowedSession(const StartSessionArgs& args, const std::string& caller);
    void allowConnection(const Session& session);
    // Arguments of the administrative requests: "DefaultSession", the configured or default session program.
    StartSessionArgs defaultSessionArgs(const std::string& user, const std::string& pass, uint8_t depth, uint16_t width,
                                        uint16_t height) const;
    // The one-time token of a transport for `user`: nullopt when none is pending, else whether it matched
    // (a match uses it up).
    std::optional<bool> consumeTransportToken(const std::string& user, const std::string& token);
    // The connect policy's decision on one more connection to the session (session/lifetime.h), under the
    // sessions lock.
    bool sessionCheckPolicyConnection(const Session& session);
    // Ends every running transport of the session; false when none ran.
    bool disconnectTransports(const SessionPtr& session);
    // The pid a caller registers as its transport, checked against the caller's credentials (D-Bus thread
    // only); the pidfd of the accepted process, empty (logged) when refused.
    Utils::UniqueFd acceptTransportPid(uint32_t session, uint32_t pid);
    // Registers an admitted transport and announces it.
    void completeTransportRegistration(const SessionPtr& session, uint32_t sid, pid_t pid, Utils::UniqueFd pidfd,
                                       const std::string& ipaddr);

    // A setter for one session (session >= 0; `markChanged`: its policies are saved when it ends) or for every
    // session and the service default (session < 0). An unknown session is ignored.
    template <typename SetSession, typename SetDefault>
    void setSessionPolicy(int32_t session, bool markChanged, SetSession&& setSession, SetDefault&& setDefault) {
        if (session >= 0) {
            if (const auto found = findSession(static_cast<uint32_t>(session))) {
                sessions.locked([&](SessionRegistry::Map&) {
                    if (markChanged) {
                        found->policiesChanged = true;
                    }
                    setSession(*found);
                });
            }
            return;
        }
        {
            std::lock_guard guard(defaultsLock);
            setDefault(serviceDefaults);
        }
        sessions.locked([&](SessionRegistry::Map& map) {
            for (auto& [id, entry] : map) {
                setSession(*entry);
            }
        });
    }
    // Resource setters (dbus_limits.cpp): the job that sets a control of one session (session >= 0) or of the
    // slice of `login` and runs systemctl; none for an unknown session or a login without sessions. For every
    // session (session < 0) the default is set and the runs are queued at once: the call does not wait for them.
    std::function<void()> sessionResourceJob(const char* method, int32_t session, ResourceControl control,
                                             const std::string& value);
    std::function<void()> userResourceJob(const char* method, const std::string& login, ResourceControl control,
                                          const std::string& value);
    std::function<void()> refuseCpuWeight(const char* method, uint32_t weight);
    // Answers a resource setter once its job has run on the resource worker (at once without a job).
    void answerAfterResourceJob(sdbus::Result<>&& result, const char* method, std::function<void()> job);
    // One of the four time limits of a session, or of every session and the default (dbus_timeouts.cpp).
    void setSessionLimit(const char* method, int32_t session, uint32_t limit, uint32_t Session::*field,
                         uint32_t ServiceDefaults::*defaultField);
    void setRedirectPolicy(const char* method, int32_t session, RedirectBit bit, bool enable);

    // Runs `work` on a background worker, not before `delay` has passed; the stop sequence waits for it.
    void startWorker(const std::function<void()>& work, std::chrono::milliseconds delay = {});

    // The unique bus name of the caller of the call being dispatched (D-Bus thread only).
    std::string callerName() const;
    // The throttle's slot for an attempt of `user` by `caller`; logs when the attempt is delayed.
    WorkPool::Clock::time_point throttleSlot(const char* method, const std::string& user, const std::string& caller);
    // The outcome of a password check for the throttle; logs when it engages or releases.
    void throttleOutcome(const std::string& user, const std::string& caller, bool accepted);
    // Answers `reply` from a start worker with a password check of `user` through the PAM service, counted by
    // the throttle.
    template <typename... Values>
    class PendingReply;
    void replyPasswordCheck(const char* method, const std::shared_ptr<PendingReply<bool>>& reply,
                            const std::string& service, const std::string& user, std::string pass,
                            const std::string& caller);
    // A password check through PAM in a process of its own (start/session_manager.h).
    bool checkPasswordWith(const std::string& service, const std::string& user, const std::string& password);

    // The reply of an asynchronous call, sent once from whichever thread has the answer.
    template <typename... Values>
    class PendingReply {
    public:
        explicit PendingReply(sdbus::Result<Values...>&& call) : result(std::move(call)) {}
        // False when a reply went already.
        bool send(const Values&... values) {
            if (sent.exchange(true)) {
                return false;
            }
            result.returnResults(values...);
            held.reset();
            return true;
        }
        // Kept until the reply went (a session request's place in the caller's rate limit).
        void hold(std::shared_ptr<void> value) { held = std::move(value); }

    private:
        std::shared_ptr<void> held;
        sdbus::Result<Values...> result;
        std::atomic<bool> sent{false};
    };
    template <typename... Values>
    using ReplyPtr = std::shared_ptr<PendingReply<Values...>>;

    // The boundary of an asynchronous call: `body` gets the pending reply and either answers it or hands it to
    // replyFromWorker. An exception is logged and answered with `failure` (unless the reply went already).
    template <typename Value, typename Body>
    void answerAsync(const char* method, sdbus::Result<Value>&& result, Value failure, Body&& body) noexcept {
        ReplyPtr<Value> reply;
        try {
            reply = std::make_shared<PendingReply<Value>>(std::move(result));
            reply->hold(std::move(requestTicket));
            std::forward<Body>(body)(reply);
        } catch (const std::exception& err) {
            error("%s: exception: %s", method, err.what());
            if (reply) {
                sendReply(method, *reply, failure);
            }
        }
    }
    // `work` runs on a start worker (not before `notBefore`) inside the boundary; its value, or `failure`, is
    // the reply. When the workers take no more work (the service stops) the reply is `failure` at once.
    template <typename Value, typename Work>
    void replyFromWorker(const char* method, const ReplyPtr<Value>& reply, Value failure, Work work,
                         WorkPool::Clock::time_point notBefore = {}) {
        auto job = [this, method, reply, failure, work = std::move(work)]() mutable {
            sendReply(method, *reply, boundary(method, failure, work));
        };
        if (!startPool.submit(std::move(job), notBefore)) {
            error("%s: service stopping", method);
            sendReply(method, *reply, failure);
        }
    }
    // Sends a reply from any thread and wakes the dispatcher so that it goes out at once.
    template <typename... Values>
    void sendReply(const char* method, PendingReply<Values...>& reply,
                   const std::type_identity_t<Values>&... values) noexcept {
        try {
            reply.send(values...);
        } catch (const std::exception& err) {
            error("%s: exception: %s", method, err.what());
        }
        loop.wake();
    }

    // Where the program list comes from: "session:programs" and "applications:skip" of a configuration.
    struct ProgramSources {
        std::filesystem::path programsFile;
        std::list<std::string> skipList;
    };
    static ProgramSources programSources(const JsonConfig& config);
    void reloadPrograms(const ProgramSources& sources) { programs.reload(sources.programsFile, sources.skipList); }

    // Emits a signal from any thread and wakes the dispatcher so that it leaves at once.
    template <typename Emit>
    void emitSignal(const char* name, Emit&& emit) noexcept {
        try {
            std::forward<Emit>(emit)();
        } catch (const std::exception& err) {
            error("%s: exception: %s", name, err.what());
        }
        loop.wake();
    }

    // The one boundary of every D-Bus operation: exceptions are logged and answered with the failure value.
    template <typename Result, typename Work>
    Result boundary(const char* method, Result failure, Work&& work) noexcept {
        try {
            return std::forward<Work>(work)();
        } catch (const std::exception& err) {
            error("%s: exception: %s", method, err.what());
        } catch (...) {
            error("%s: exception: %s", method, "unknown");
        }
        return failure;
    }
    template <typename Work>
    void boundary(const char* method, Work&& work) noexcept {
        boundary(method, true, [&work] {
            std::forward<Work>(work)();
            return true;
        });
    }

    // Who may call what (dbus_access.cpp). Every operation first asks admitCall (through serve for the
    // operations answered at once, through authorizedCall for those answered later), on the D-Bus thread, before
    // it does anything.
    // The caller of a connection, from the bus's credentials of it, which never change while it lasts: kept per
    // unique name (`callers`, D-Bus thread only).
    struct CallerInfo {
        uid_t uid = static_cast<uid_t>(-1);
        pid_t pid = -1;
        Access::Roles roles = 0;
        std::chrono::steady_clock::time_point seen;
    };
    struct CallVerdict {
        Access::Decision decision = Access::Decision::Refused;
        std::string caller; // unique bus name
        CallerInfo info;
        const Access::MethodGroup* group = nullptr;
    };
    // The table's verdict on the call being dispatched (D-Bus thread only); refusals are logged with the caller's
    // uid, pid and the method. Session requests of a caller that is not root also pass the rate limits here.
    CallVerdict admitCall(const char* method);
    // Whether the caller of the call being dispatched may see NT hashes: root and the transport role.
    bool callerSeesSecrets();
    // Runs `run` at once when the verdict allows it, on the authorization worker once polkit granted the group's
    // action, or `refuse` (which answers the failure value).
    void dispatchAuthorized(const char* method, const std::function<void()>& run,
                            const std::function<void()>& refuse) noexcept;
    bool polkitGrants(const char* method, const CallVerdict& verdict);

    // The boundary of an operation answered at once: refused calls get `failure`.
    template <typename Result, typename Work>
    Result serve(const char* method, Result failure, Work&& work) noexcept {
        const auto verdict = admitCall(method);
        if (verdict.decision != Access::Decision::Allowed) {
            if (verdict.decision == Access::Decision::AskPolkit) {
                error("%s: %s", method, "polkit check needs an asynchronous operation, refused");
            }
            return failure;
        }
        return boundary(method, failure, std::forward<Work>(work));
    }
    template <typename Work>
    void serve(const char* method, Work&& work) noexcept {
        serve(method, true, [&work] {
            std::forward<Work>(work)();
            return true;
        });
    }
    // An operation answered later: `operation` (a member taking the arguments, and the call's result first when
    // it answers on its own) runs once the caller is admitted; a refused call is answered with value-initialized
    // values (false, 0, empty), the interface's failure values of these methods.
    template <typename Operation, typename... Values, typename... Args>
    void authorizedCall(const char* method, sdbus::Result<Values...>&& result, Operation operation,
                        Args&&... args) noexcept {
        authorizedCallOr(method, std::move(result), std::tuple<Values...>{}, operation, std::forward<Args>(args)...);
    }
    // The same with the failure values given (a session request's -4, the login helper's (-1, "")).
    template <typename Operation, typename... Values, typename... Args>
    void authorizedCallOr(const char* method, sdbus::Result<Values...>&& result,
                          std::type_identity_t<std::tuple<Values...>> failure, Operation operation,
                          Args&&... args) noexcept {
        try {
            auto reply = std::make_shared<sdbus::Result<Values...>>(std::move(result));
            auto values = std::make_shared<std::tuple<std::decay_t<Args>...>>(std::forward<Args>(args)...);
            auto run = [this, method, reply, values, operation] {
                std::apply(
                    [&](auto&... arg) {
                        if constexpr (std::is_invocable_v<Operation, DBusService*, sdbus::Result<Values...>&&,
                                                          decltype(arg)...>) {
                            std::invoke(operation, this, std::move(*reply), arg...);
                        } else if constexpr (sizeof...(Values) == 0) {
                            std::invoke(operation, this, arg...);
                            answerNow(method, *reply);
                        } else {
                            answerNow(method, *reply, std::invoke(operation, this, arg...));
                        }
                    },
                    *values);
            };
            auto refuse = [this, method, reply, failure = std::move(failure)] {
                std::apply([&](const auto&... value) { answerNow(method, *reply, value...); }, failure);
            };
            dispatchAuthorized(method, run, refuse);
        } catch (const std::exception& err) {
            error("%s: exception: %s", method, err.what());
        }
    }
    template <typename... Values>
    void answerNow(const char* method, sdbus::Result<Values...>& reply,
                   const std::type_identity_t<Values>&... values) noexcept {
        try {
            reply.returnResults(values...);
        } catch (const std::exception& err) {
            error("%s: exception: %s", method, err.what());
        }
        loop.wake();
    }

    // D-Bus operations, by subsystem.
    // Service core (dbus_core.cpp)
    void busServiceShutdown() override;
    void busSetDebugLevel(sdbus::Result<>&& result, std::string value) override;
    void busSetDebugLevelAuthorized(const std::string& value);
    bool vexaStatus() override;
    std::string vexaTest() override;
    uint32_t vexaApiVersion() override;
    void vexaSessionsLimit(sdbus::Result<>&& result, uint32_t limit) override;
    void vexaSessionsLimitAuthorized(const uint32_t& limit);
    void vexaUsersLimit(sdbus::Result<>&& result, uint32_t limit) override;
    void vexaUsersLimitAuthorized(const uint32_t& limit);

    // Session reports (dbus_reports.cpp)
    std::vector<sdbus::Struct<std::string, uint32_t>> vexaSessions() override;
    std::string vexaSessionInfoJson(const uint32_t& session) override;
    std::string vexaUserInfoJson(const std::string& user) override;
    double vexaLoadAverage() override;
    uint32_t zabbixSessionsTotal() override;
    uint32_t zabbixSessionsOnline() override;
    std::string vexaSessionProcess(const uint32_t& session) override;
    std::string vexaTransportDisplayDBusAddress(const uint32_t& display) override;

    // Session requests and login helper (dbus_requests.cpp)
    // These wait (PAM, a session start): answered from a start worker.
    void busSessionRequest(sdbus::Result<int32_t>&& result, std::string user, std::string pass, uint8_t depth,
                           uint16_t width, uint16_t height) override;
    void busSessionRequestAuthorized(sdbus::Result<int32_t>&& result, std::string user, std::string pass, uint8_t depth,
                                     uint16_t width, uint16_t height);
    void busSessionDomainRequest(sdbus::Result<int32_t>&& result, std::string user, std::string domain,
                                 std::string pass, uint8_t depth, uint16_t width, uint16_t height) override;
    void busSessionDomainRequestAuthorized(sdbus::Result<int32_t>&& result, std::string user, std::string domain,
                                           std::string pass, uint8_t depth, uint16_t width, uint16_t height);
    void vexaSessionRequest(sdbus::Result<int32_t>&& result, std::string params) override;
    void vexaSessionRequestAuthorized(sdbus::Result<int32_t>&& result, std::string params);
    void busProgramRequest(sdbus::Result<int32_t>&& result, std::string user, std::string domain, std::string pass,
                           uint16_t width, uint16_t height, std::string prog) override;
    void busProgramRequestAuthorized(sdbus::Result<int32_t>&& result, std::string user, std::string domain,
                                     std::string pass, uint16_t width, uint16_t height, std::string prog);
    void vexaLogin(sdbus::Result<bool>&& result, std::string user, std::string domain, std::string pass) override;
    void vexaLoginAuthorized(sdbus::Result<bool>&& result, std::string user, std::string domain, std::string pass);
    void vexaTestConnect(sdbus::Result<bool>&& result, std::string user, std::string domain, std::string pass) override;
    void vexaTestConnectAuthorized(sdbus::Result<bool>&& result, std::string user, std::string domain,
                                   std::string pass);
    void vexaLoginHelperStart(sdbus::Result<sdbus::Struct<int32_t, std::string>>&& result, std::string user,
                              int32_t transportPid) override;
    void vexaLoginHelperStartAuthorized(sdbus::Result<sdbus::Struct<int32_t, std::string>>&& result, std::string user,
                                        int32_t transportPid);
    std::string vexaLoginHelperStarted(const int32_t& transportPid) override;
    void vexaLoginHelperAllowConnectForTransportTo(const int32_t& transportPid, const int32_t& x11Display,
                                                   const std::string& xauthFile) override;
    bool vexaTransportPolicyShowLoginHelper() override;
    bool vexaLoginHelperPolicyShowSessions() override;
    bool vexaLoginHelperPolicyShowKeyboard() override;

    // Session shutdown and disconnect (dbus_shutdown.cpp)
    void busSessionShutdown(sdbus::Result<bool>&& result, std::string username) override;
    bool busSessionShutdownAuthorized(const std::string& username);
    void vexaSessionShutdown(sdbus::Result<bool>&& result, uint32_t session) override;
    bool vexaSessionShutdownAuthorized(const uint32_t& session);
    void vexaDisconnect(sdbus::Result<bool>&& result, uint32_t session) override;
    bool vexaDisconnectAuthorized(const uint32_t& session);
    void vexaTransportDisplayShutdown(const uint32_t& display) override;

    // Connection policy, proxy and transports (dbus_connect.cpp)
    void proxyListenStarted(const uint32_t& session, const bool& status) override;
    void proxyClientConnected(const uint32_t& session, const std::string& ipaddr) override;
    void proxyListenTimeout(const uint32_t& timeout) override;
    void proxySessionConnected(sdbus::Result<>&& result, uint32_t session, uint32_t pid, std::string ipaddr) override;
    void proxySessionConnectedAuthorized(sdbus::Result<>&& result, uint32_t session, uint32_t pid, std::string ipaddr);
    bool vexaConnectRdpTransport(const uint32_t& session, const uint32_t& timeout) override;
    bool vexaCheckProxyListen() override;
    void vexaSessionPolicyConnect(sdbus::Result<>&& result, int32_t session, uint32_t policy) override;
    void vexaSessionPolicyConnectAuthorized(const int32_t& session, const uint32_t& policy);
    uint32_t vexaPolicyConnectDefault() override;
    uint32_t vexaTransportDisplayInactivity(const uint32_t& display) override;
    void vexaTransportDisplayInactivityEvent(const uint32_t& display) override;

    // Time limits (dbus_timeouts.cpp)
    void vexaSessionDurationLimit(sdbus::Result<>&& result, int32_t session, uint32_t countsec) override;
    void vexaSessionDurationLimitAuthorized(const int32_t& session, const uint32_t& countsec);
    void vexaSessionInactivityLimit(sdbus::Result<>&& result, int32_t session, uint32_t countsec) override;
    void vexaSessionInactivityLimitAuthorized(const int32_t& session, const uint32_t& countsec);
    void vexaSessionDisconnectLimit(sdbus::Result<>&& result, int32_t session, uint32_t countsec) override;
    void vexaSessionDisconnectLimitAuthorized(const int32_t& session, const uint32_t& countsec);
    void vexaSessionSeamlessLimit(sdbus::Result<>&& result, int32_t session, uint32_t countsec) override;
    void vexaSessionSeamlessLimitAuthorized(const int32_t& session, const uint32_t& countsec);
    uint32_t vexaSeamlessTimeoutDefault() override;
    uint32_t vexaDurationTimeoutDefault() override;
    uint32_t vexaInactivityTimeoutDefault() override;
    uint32_t vexaDisconnectTimeoutDefault() override;
    void vexaUserSessionsCheckTimeouts(sdbus::Result<>&& result, std::string username, bool check) override;
    void vexaUserSessionsCheckTimeoutsAuthorized(const std::string& username, const bool& check);

    // Redirect and transport policies (dbus_redirect.cpp)
    void vexaRdpSecurityPolicy(const uint32_t& session, const bool& nla, const bool& tls, const bool& rdp) override;
    void vexaSessionPolicyRedirectPrinter(sdbus::Result<>&& result, int32_t session, bool enable) override;
    void vexaSessionPolicyRedirectPrinterAuthorized(const int32_t& session, const bool& enable);
    void vexaSessionPolicyRedirectAudio(sdbus::Result<>&& result, int32_t session, bool enable) override;
    void vexaSessionPolicyRedirectAudioAuthorized(const int32_t& session, const bool& enable);
    void vexaSessionPolicyRedirectMicrophone(sdbus::Result<>&& result, int32_t session, bool enable) override;
    void vexaSessionPolicyRedirectMicrophoneAuthorized(const int32_t& session, const bool& enable);
    void vexaSessionPolicyRedirectClipboard(sdbus::Result<>&& result, int32_t session, bool client2server,
                                            bool server2client) override;
    void vexaSessionPolicyRedirectClipboardAuthorized(const int32_t& session, const bool& client2server,
                                                      const bool& server2client);
    void vexaSessionPolicyRedirectClipboardFile(sdbus::Result<>&& result, int32_t session, bool enable) override;
    void vexaSessionPolicyRedirectClipboardFileAuthorized(const int32_t& session, const bool& enable);
    void vexaSessionPolicyRedirectClipboardLimit(sdbus::Result<>&& result, int32_t session, uint32_t limit) override;
    void vexaSessionPolicyRedirectClipboardLimitAuthorized(const int32_t& session, const uint32_t& limit);
    void vexaSessionPolicyRedirectDrive(sdbus::Result<>&& result, int32_t session, bool enable) override;
    void vexaSessionPolicyRedirectDriveAuthorized(const int32_t& session, const bool& enable);
    void vexaSessionPolicyRedirectSmartcard(sdbus::Result<>&& result, int32_t session, bool enable) override;
    void vexaSessionPolicyRedirectSmartcardAuthorized(const int32_t& session, const bool& enable);
    bool vexaPolicyRedirectPrinterDefault() override;
    bool vexaPolicyRedirectDriveDefault() override;
    bool vexaPolicyRedirectSmartcardDefault() override;
    bool vexaPolicyRedirectAudioDefault() override;
    bool vexaPolicyRedirectMicrophoneDefault() override;
    uint32_t vexaPolicyRedirectClipboardDefault() override;
    bool vexaPolicyRedirectClipboardFileDefault() override;
    uint32_t vexaPolicyRedirectClipboardLimitDefault() override;
    uint64_t vexaTransportDisplayPolicyRedirect(const uint32_t& display) override;
    uint64_t vexaTransportDisplayRdpKeepAlive(const uint32_t& display) override;
    void vexaSessionPolicyRdpKeepAlive(sdbus::Result<>&& result, int32_t session, uint32_t interval,
                                       uint32_t failures) override;
    void vexaSessionPolicyRdpKeepAliveAuthorized(const int32_t& session, const uint32_t& interval,
                                                 const uint32_t& failures);
    uint64_t vexaPolicyRdpKeepAliveDefault() override;

    // Resource limits and freeze (dbus_limits.cpp)
    uint32_t vexaCpuWeightDefault() override;
    void vexaSessionLimitCpuWeight(sdbus::Result<>&& result, int32_t session, uint32_t weight) override;
    void vexaSessionLimitCpuWeightAuthorized(sdbus::Result<>&& result, int32_t session, uint32_t weight);
    void vexaUserLimitCpuWeight(sdbus::Result<>&& result, std::string login, uint32_t weight) override;
    void vexaUserLimitCpuWeightAuthorized(sdbus::Result<>&& result, const std::string& login, uint32_t weight);
    uint32_t vexaCpuQuotaDefault() override;
    void vexaSessionLimitCpuQuota(sdbus::Result<>&& result, int32_t session, uint32_t quota) override;
    void vexaSessionLimitCpuQuotaAuthorized(sdbus::Result<>&& result, int32_t session, uint32_t quota);
    void vexaUserLimitCpuQuota(sdbus::Result<>&& result, std::string login, uint32_t quota) override;
    void vexaUserLimitCpuQuotaAuthorized(sdbus::Result<>&& result, const std::string& login, uint32_t quota);
    std::string vexaMemoryHighDefault() override;
    void vexaSessionLimitMemoryHigh(sdbus::Result<>&& result, int32_t session, std::string memory) override;
    void vexaSessionLimitMemoryHighAuthorized(sdbus::Result<>&& result, int32_t session, const std::string& memory);
    void vexaUserLimitMemoryHigh(sdbus::Result<>&& result, std::string login, std::string memory) override;
    void vexaUserLimitMemoryHighAuthorized(sdbus::Result<>&& result, const std::string& login,
                                           const std::string& memory);
    std::string vexaMemoryMaxDefault() override;
    void vexaSessionLimitMemoryMax(sdbus::Result<>&& result, int32_t session, std::string memory) override;
    void vexaSessionLimitMemoryMaxAuthorized(sdbus::Result<>&& result, int32_t session, const std::string& memory);
    void vexaUserLimitMemoryMax(sdbus::Result<>&& result, std::string login, std::string memory) override;
    void vexaUserLimitMemoryMaxAuthorized(sdbus::Result<>&& result, const std::string& login,
                                          const std::string& memory);
    uint32_t vexaTasksMaxDefault() override;
    void vexaSessionLimitTasksMax(sdbus::Result<>&& result, int32_t session, uint32_t tasks) override;
    void vexaSessionLimitTasksMaxAuthorized(sdbus::Result<>&& result, int32_t session, uint32_t tasks);
    void vexaUserLimitTasksMax(sdbus::Result<>&& result, std::string login, uint32_t tasks) override;
    void vexaUserLimitTasksMaxAuthorized(sdbus::Result<>&& result, const std::string& login, uint32_t tasks);
    std::string vexaNetworkDenyDefault() override;
    void vexaSessionNetworkDeny(sdbus::Result<>&& result, int32_t session, std::string rules) override;
    void vexaSessionNetworkDenyAuthorized(sdbus::Result<>&& result, int32_t session, const std::string& rules);
    void vexaUserNetworkDeny(sdbus::Result<>&& result, std::string login, std::string rules) override;
    void vexaUserNetworkDenyAuthorized(sdbus::Result<>&& result, const std::string& login, const std::string& rules);
    std::string vexaNetworkAllowDefault() override;
    void vexaSessionNetworkAllow(sdbus::Result<>&& result, int32_t session, std::string rules) override;
    void vexaSessionNetworkAllowAuthorized(sdbus::Result<>&& result, int32_t session, const std::string& rules);
    void vexaUserNetworkAllow(sdbus::Result<>&& result, std::string login, std::string rules) override;
    void vexaUserNetworkAllowAuthorized(sdbus::Result<>&& result, const std::string& login, const std::string& rules);
    bool vexaSessionDisconnectedFreezeDefault() override;
    void vexaSessionDisconnectedFreeze(sdbus::Result<>&& result, int32_t session, bool val) override;
    void vexaSessionDisconnectedFreezeAuthorized(const int32_t& session, const bool& val);

    // Credentials (dbus_auth.cpp)
    void vexaCheckAuthUser(sdbus::Result<bool>&& result, std::string user, std::string pass,
                           std::string service) override;
    void vexaCheckAuthUserAuthorized(sdbus::Result<bool>&& result, std::string user, std::string pass,
                                     std::string service);
    bool vexaCheckAuthCertificate(const std::string& pemcert) override;

    // Published programs (dbus_programs.cpp)
    std::vector<std::string> vexaProgramList() override;
    std::vector<uint8_t> vexaProgramIconPng(const std::string& program) override;

    // Notifications and remote assistance (dbus_extras.cpp)
    void vexaSendNotify(sdbus::Result<bool>&& result, uint32_t session, std::string header, std::string message,
                        uint8_t level) override;
    void vexaSendNotifyAuthorized(sdbus::Result<bool>&& result, uint32_t session, std::string header,
                                  std::string message, uint8_t level);
    void vexaSessionRemoteAssistance(sdbus::Result<bool>&& result, uint32_t session, bool start) override;
    void vexaSessionRemoteAssistanceAuthorized(sdbus::Result<bool>&& result, uint32_t session, bool start);
    // The work of the two above, on a worker: the notification helper started in the session (false for an
    // unknown session); the remote-assistance program started (false), found running (true) or stopped (true).
    bool sendNotify(uint32_t session, const std::string& header, const std::string& message, uint8_t level);
    bool remoteAssistance(uint32_t session, bool start);
    // Enters a program started in a session in the child table.
    void addChild(SessionCommand& started);

    // Display geometry (dbus_display.cpp); answered from a start worker once the X server reports the new size.
    void vexaSessionGeometry(sdbus::Result<>&& result, uint32_t session, uint16_t width, uint16_t height) override;
    void vexaSessionGeometryAuthorized(sdbus::Result<>&& result, uint32_t session, uint16_t width, uint16_t height);
    void vexaDisplayResize(sdbus::Result<bool>&& result, uint32_t display, uint16_t width, uint16_t height) override;
    void vexaDisplayResizeAuthorized(sdbus::Result<bool>&& result, uint32_t display, uint16_t width, uint16_t height);
    void
    vexaTransportDisplayMonitorsChanged(sdbus::Result<bool>&& result, uint32_t display,
                                        std::vector<sdbus::Struct<uint32_t, int32_t, int32_t, uint32_t, uint32_t,
                                                                  uint32_t, uint32_t, uint32_t, uint32_t, uint32_t>>
                                            monitors) override;
    void vexaTransportDisplayMonitorsChangedAuthorized(
        sdbus::Result<bool>&& result, uint32_t display,
        std::vector<sdbus::Struct<uint32_t, int32_t, int32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
                                  uint32_t, uint32_t>>
            monitors);
    // One monitor of that size, or nullopt (logged) when the size is refused (xcb/layout.h).
    std::optional<Xcb::Layout> requestedLayout(const char* method, uint32_t width, uint32_t height) const;
    // Brings the session's display to the layout and waits until its X server reports the new size (blocks: a
    // worker's call); false (logged) when the session is frozen or the display could not take the layout.
    bool waitSessionGeometryUpdate(Session& session, const Xcb::Layout& layout);
    // Answers `reply` from a start worker with the outcome of the update; false at once without a session or
    // layout.
    void replyGeometryUpdate(const char* method, const ReplyPtr<bool>& reply, SessionPtr session,
                             std::optional<Xcb::Layout> layout);
    SessionPtr findDisplaySessionLogged(const char* method, uint32_t display) const;

    const std::filesystem::path configPath;
    const std::filesystem::path storeDir{sessionsStoreDir};
    std::filesystem::path pidFile;
    EventLoop& loop;

    mutable std::mutex configLock; // guards `config`: swapped whole on reload by the watcher thread
    std::shared_ptr<const JsonConfig> config;
    std::atomic<int64_t> configModified{0}; // last seen modification time (s) of the configuration file

    mutable std::mutex defaultsLock; // guards `serviceDefaults` and `limitsDefaults`; taken after the sessions lock
    ServiceDefaults serviceDefaults;
    LimitsDefaults limitsDefaults;

    std::atomic<uint32_t> apiUsersLimit{0};    // set over D-Bus; 0: the configured limit applies
    std::atomic<uint32_t> apiSessionsLimit{0}; // set over D-Bus; 0: the configured limit applies
    std::atomic<bool> proxyListen{false};

    int auditFd = -1;

    ProgramList programs; // thread-safe on its own: reloaded and read by the watcher and the D-Bus thread
    std::atomic<int64_t> programsModified{0}; // last seen modification time (s) of the programs file

    SessionRegistry sessions;
    RecordStore records{sessions}; // the sessions' record files, "<runtime:dir>/sessions"; thread-safe
    SessionStarter starter{sessions, *this};
    ChildTable children;
    // The start workers: session starts and password checks. Sized by "start:workers" (read at start and at
    // every reload); stopped, with every queued call answered, by the stop sequence.
    WorkPool startPool{"startWorker", 8};
    AuthThrottle throttle;      // failed logins per user and per caller; thread-safe
    Metrics::Counters counters; // starts by outcome, their latency, throttled requests; thread-safe
    const std::chrono::steady_clock::time_point startedAt = std::chrono::steady_clock::now();

    std::mutex assistanceLock; // one remote-assistance request at a time: its check and its start go together

    // systemctl runs of the resource setters, one at a time in the order of the calls, so that the last value
    // set is the last one applied.
    WorkPool resourcePool{"resourceWorker", 1};

    // Short jobs off the bus thread and the watcher (announcing a new or an ended session, the limits file,
    // signals): a few threads for however many sessions come and go at once.
    WorkPool backgroundPool{"backgroundWorker", 4};

    std::unordered_map<std::string, CallerInfo> callers; // D-Bus thread only
    PolkitAuthority polkit;
    Access::RateLimiter requestLimiter; // thread-safe
    // The rate-limit place of the session request being dispatched, handed to its pending reply; set only on the
    // D-Bus thread, so a worker's copy is always empty.
    static inline thread_local std::shared_ptr<void> requestTicket;
    // Polkit checks and the operations they let through: one worker, so that an administrator's calls run in the
    // order they came. Stopped first by the stop sequence: what it runs may still queue work on the other pools.
    WorkPool authPool{"authWorker", 1};
};

} // namespace Vexa
