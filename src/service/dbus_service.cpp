#include "dbus_service.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fstream>
#include <optional>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <libaudit.h>
#include <systemd/sd-daemon.h>

#include "common/events.h"
#include "common/globals.h"
#include "common/periodic_jobs.h"
#include "common/utils.h"
#include "common/vexa_error.h"
#include "start/xserver.h"

namespace Vexa {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// Sleeps the whole duration, resuming after signals.
void sleepFor(std::chrono::nanoseconds duration) {
    const auto secs = std::chrono::duration_cast<std::chrono::seconds>(duration);
    timespec req{static_cast<time_t>(secs.count()), static_cast<long>((duration - secs).count())};
    timespec rem{};
    while (nanosleep(&req, &rem) != 0 && errno == EINTR) {
        req = rem;
    }
}

void makeDirectory(const fs::path& path, bool withParents, const char* failure) {
    std::error_code ec;
    if (fs::is_directory(path, ec)) {
        return;
    }
    const bool made = withParents ? fs::create_directories(path, ec) : fs::create_directory(path, ec);
    if (!made || ec) {
        Syslog::error("%s: create runtime directory failed, path: %s", "DBusService", path.c_str());
        throw vexa_error(failure);
    }
}

} // namespace

DBusService::DBusService(sdbus::IConnection& connection, const std::string& path, EventLoop& eventLoop)
    : Syslog("vexa_service"), AdaptorInterfaces(connection, serviceObjectPath), configPath(path), loop(eventLoop) {
    auto json = readJson(configPath);
    if (!json.isObject()) {
        error("%s: json not object, file: %s", "DBusService", configPath.c_str());
        throw vexa_error("DBusService");
    }
    config = std::make_shared<const JsonConfig>(std::move(json));
    loadConfigDefaultValues();

    const auto runtimeDir = defaults().runtimeDir;
    makeDirectory(runtimeDir, false, "runtime directory failed");
    makeDirectory(storeDir, true, "store directory failed");

    std::error_code ec;
    fs::permissions(runtimeDir, fs::perms(0755), fs::perm_options::replace, ec);
    fs::permissions(storeDir, fs::perms(0750), fs::perm_options::replace, ec);

    pidFile = runtimeDir / "vexa_service.pid";
    if (std::ofstream out(pidFile, std::ios::trunc); out.good()) {
        out << getpid();
    }

    auditFd = audit_open();
    if (auditFd < 0) {
        const int err = errno;
        warning("%s: %s failed, error: %s, code: %d", "DBusService", "audit_open", Utils::errnoText(err).c_str(), err);
    }

    reloadPrograms(programSources(*configuration()));

    const auto limitsFile = readJson(limitsFilePath);
    if (limitsFile.isObject()) {
        limitsDefaults = readLimitsDefaults(limitsFile);
    } else {
        error("%s: json not object, file: %s", "DBusService", limitsFilePath);
    }

    // The sessions of an earlier run are back before the first call is answered.
    const auto recordsDir = runtimeDir / "sessions";
    makeDirectory(recordsDir, false, "runtime directory failed");
    fs::permissions(recordsDir, fs::perms(0700), fs::perm_options::replace, ec);
    records.setDirectory(recordsDir);
    adoptSessions();

    // The metrics interface beside the generated one, on the same object, so that each call passes the same
    // caller check (admitCall) as every other.
    getObject()
        .registerMethod("metricsText")
        .onInterface(std::string(Access::metricsInterface))
        .withOutputParamNames("text")
        .implementedAs([this] { return metricsText(); });
    registerAdaptor();
}

DBusService::~DBusService() {
    unregisterAdaptor();

    std::error_code ec;
    if (fs::exists(fs::symlink_status(pidFile, ec))) {
        fs::remove(pidFile, ec);
    }
    if (auditFd >= 0) {
        audit_close(auditFd);
    }
}

void DBusService::start(const std::string& configPath) {
    umask(027);

    // The name is requested first: a second instance stops here, before it touches the pid file or the run-time
    // directory of the running one. Calls that arrive before the object is registered wait in the connection's
    // queue, because nothing is dispatched until the loop runs.
    auto connection = sdbus::createSystemBusConnection();
    connection->requestName(serviceBusName);
    EventLoop loop(*connection);
    auto service = std::make_unique<DBusService>(*connection, configPath, loop);

    notice("%s: started, version %s, pid: %d, config: `%s', dbus timeout: %d", "start",
           productVersion("SERVICE").c_str(), getpid(), configPath.c_str(),
           static_cast<int>(connection->getMethodCallTimeout()));

    serviceRunning.store(true);
    sd_notify(0, "READY=1");

    std::thread watcher([&service] { service->watcherLoop(); });

    std::optional<std::string> lostReason;
    try {
        loop.run();
    } catch (const sdbus::Error& err) {
        // The bus is gone: stop as on SIGTERM, then report the failure.
        lostReason = err.what();
        requestServiceStop();
    }

    watcher.join();
    service->waitWorkers();
    // A lost bus, and a stop that the service manager follows with a start, leave the sessions to the next run.
    if (lostReason || service->restartPending()) {
        service->sessionsKeep();
    } else {
        service->sessionsClear();
    }
    notice("%s: shutdown complete", "start");
    service.reset();
    connection.reset();

    if (lostReason) {
        throw bus_lost(*lostReason);
    }
}

std::shared_ptr<const JsonConfig> DBusService::configuration() const {
    std::lock_guard guard(configLock);
    return config;
}

ServiceDefaults DBusService::defaults() const {
    std::lock_guard guard(defaultsLock);
    return serviceDefaults;
}

LimitsDefaults DBusService::resourceDefaults() const {
    std::lock_guard guard(defaultsLock);
    return limitsDefaults;
}

std::filesystem::path DBusService::createXauthFile(uint32_t display, const std::string& user) const {
    const auto group = configuration()->getString("xauth:group", "vexa-xauth");
    return Vexa::createXauthFile(defaults().runtimeDir, display, user, group);
}

void DBusService::applyDefaults(const ServiceDefaults& next) {
    Syslog::setDebugLevel(next.debugLevel);
    startPool.setLimit(next.startWorkers);
    throttle.configure(ThrottleSettings{next.throttleFailures, std::chrono::seconds(next.throttleDelay),
                                        std::chrono::seconds(next.throttleDelayMax),
                                        std::chrono::seconds(next.throttleForget)});
    requestLimiter.configure(Access::RateSettings{next.requestsInFlight, next.requestsPerMinute});
    std::lock_guard guard(defaultsLock);
    serviceDefaults = next;
}

void DBusService::loadConfigDefaultValues() {
    const auto current = configuration();
    if (!current) {
        return;
    }
    applyDefaults(loadServiceDefaults(*current));
}

void DBusService::reloadConfigWatcher() {
    struct stat st {};
    if (stat(configPath.c_str(), &st) != 0) {
        const int err = errno;
        warning("%s: %s failed, error: %s, code: %d", "reloadConfigWatcher", "stat", Utils::errnoText(err).c_str(),
                err);
        return;
    }

    const int64_t modified = st.st_mtim.tv_sec;
    const int64_t previous = configModified.load();
    if (previous == modified) {
        return;
    }
    configModified.store(modified);
    if (previous == 0) {
        return;
    }

    auto json = readJson(configPath);
    if (!json.isObject()) {
        error("%s: json not object, file: %s", "reloadConfigWatcher", configPath.c_str());
        return;
    }
    auto next = std::make_shared<const JsonConfig>(std::move(json));
    // Values are read before anything is swapped: a key of the wrong type throws here and the old
    // configuration stays in force.
    const auto nextDefaults = loadServiceDefaults(*next);
    const auto nextPrograms = programSources(*next);

    sd_notify(0, "RELOADING=1");
    {
        std::lock_guard guard(configLock);
        config = std::move(next);
    }
    applyDefaults(nextDefaults);

    if (const auto limit = apiUsersLimit.load()) {
        warning("%s: users limit sets from API (%u), skip config %s value", "reloadConfigWatcher", limit,
                "users:limit");
    }
    if (const auto limit = apiSessionsLimit.load()) {
        warning("%s: sessions limit sets from API(%u), skip config %s value", "reloadConfigWatcher", limit,
                "sessions:limit");
    }

    reloadPrograms(nextPrograms);

    notice("%s: %s", "reloadConfigWatcher", "success");
    sd_notify(0, "READY=1");
}

void DBusService::watcherLoop() {
    PeriodicJobs jobs(PeriodicJobs::Clock::now());
    const std::array<std::function<void()>, watcherSchedule.size()> work{
        [this] {
            reloadProgramsWatcher();
            reloadConfigWatcher();
        },
        [this] { stoppedChildsWatcher(); },
        [this] { stoppedTransportWatcher(); },
        [this] { timeLimitSessionsWatcher(); },
        [this] { seamlessTimeoutWatcher(); },
    };
    // The watchers of transports and limits have nothing to look at without sessions: an idle service then
    // wakes only for the reload and the children.
    const auto noSessions = [this] { return sessions.size() == 0; };
    for (size_t i = 0; i < watcherSchedule.size(); ++i) {
        jobs.add(watcherSchedule[i].name, watcherSchedule[i].period, work[i],
                 i >= 2 ? std::function<bool()>(noSessions) : std::function<bool()>());
    }
    // Changes that no code path saves on its own (policies, limits, time points) reach the records here.
    jobs.add(
        "sessionRecordsWatcher", 1000ms, [this] { records.saveAll(); }, noSessions);

    // Sleeps until the next job is due, or until the service is asked to stop.
    const int stopFd = serviceStopFd();
    while (serviceRunning.load()) {
        jobs.runDue();
        Utils::waitReadable(std::span(&stopFd, 1), jobs.nextDue());
    }

    sd_notify(0, "STOPPING=1");
    emitSignal("signalVexaStopped", [this] { emitSignalVexaStopped(); });
    // Starts under way end now (their waits see the stop); every call still queued is answered.
    authPool.stop();
    startPool.stop();
    sleepFor(250ms);
    loop.exit();
}

void DBusService::sessionsClear() {
    // Records are destroyed here, outside the sessions lock.
    sessions.takeAll().clear();
    endChildren("sessionsClear", {});
}

void DBusService::endChildren(const char* func, const std::vector<pid_t>& kept) {
    // Stop sequence: the child-table lock stays held while the children are ended and waited for, so that
    // nothing can add or consume an entry meanwhile; no other thread of the service is running any more.
    std::lock_guard guard(children.lock);
    children.entries.remove_if(
        [&kept](const ChildEntry& child) { return std::find(kept.begin(), kept.end(), child.pid) != kept.end(); });
    if (children.entries.empty()) {
        return;
    }
    warning("%s: running childs: %u, killed all", func, static_cast<unsigned>(children.entries.size()));
    for (const auto& child : children.entries) {
        if (child.pid > 0 && child.ownChild) {
            kill(child.pid, SIGTERM);
        }
    }
    sleepFor(100ms);
    for (auto& child : children.entries) {
        // The stopped-children watcher drops entries whose result it took; nothing else is left without one.
        if (child.status.valid()) {
            child.status.wait();
        }
    }
    children.entries.clear();
}

} // namespace Vexa
