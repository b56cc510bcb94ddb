// Sessions that outlive the daemon: their records kept on disk, taken back by the next daemon when it starts,
// and the choice at stop between ending every session and leaving them to the daemon that follows.

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sstream>
#include <sys/stat.h>
#include <thread>

#include <systemd/sd-login.h>

#include "common/accounts.h"
#include "common/events.h"
#include "common/process.h"
#include "common/utils.h"
#include "dbus_service.h"

namespace Vexa {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr const char* adoptSelf = "adoptSessions";

// How long the processes left in the scope of a session that ended meanwhile have to leave after SIGTERM.
constexpr auto scopeGrace = 2s;

// logind still has the session, not closing, and the process is in it.
bool logindKnows(const SessionRecord& record) {
    if (record.systemdSid.empty()) {
        return false;
    }
    char* state = nullptr;
    if (sd_session_get_state(record.systemdSid.c_str(), &state) < 0) {
        return false;
    }
    const bool closing = std::string_view(state) == "closing";
    std::free(state);
    char* sid = nullptr;
    if (sd_pid_get_session(record.manager.pid, &sid) < 0) {
        return false;
    }
    const bool same = record.systemdSid == sid;
    std::free(sid);
    return same && !closing;
}

// The processes of a cgroup (by its path below the cgroup root), read from its "cgroup.procs".
std::vector<pid_t> cgroupProcesses(const std::string& cgroup) {
    std::vector<pid_t> pids;
    if (cgroup.empty() || cgroup.find("..") != std::string::npos) {
        return pids;
    }
    std::istringstream in(Utils::readFileText(fs::path("/sys/fs/cgroup/" + cgroup) / "cgroup.procs"));
    pid_t pid = 0;
    while (in >> pid) {
        pids.push_back(pid);
    }
    return pids;
}

// Sends `sig` to every process of the cgroup, each through a pidfd (a pid that has gone is skipped).
size_t signalCgroup(const std::string& cgroup, int sig) {
    size_t signalled = 0;
    for (const pid_t pid : cgroupProcesses(cgroup)) {
        const auto fd = Utils::processFd(pid);
        if (Utils::signalProcess(fd.get(), sig)) {
            ++signalled;
        }
    }
    return signalled;
}

} // namespace

void DBusService::adoptSessions() {
    const auto files = records.files();
    for (const auto& path : files) {
        const auto record = parseSessionRecord(Utils::readFileText(path));
        if (!record) {
            warning("%s: record not readable, removed, path: %s", adoptSelf, path.c_str());
            std::error_code ec;
            fs::remove(path, ec);
            continue;
        }
        AdoptionFacts facts;
        facts.managerStartTime = Utils::processStartTime(record->manager.pid);
        facts.logindKnows = facts.managerStartTime == record->manager.startTime && logindKnows(*record);
        auto decision = adoptionDecision(*record, facts);
        if (decision == Adoption::Adopt) {
            decision = adoptSession(*record, path);
        }
        if (decision == Adoption::Adopt) {
            continue;
        }
        notice("%s: session ended while the service was down, session id: %u, display: %u, user: %s, reason: %s",
               adoptSelf, record->sid, static_cast<uint32_t>(record->display), record->user.c_str(),
               adoptionText(decision));
        cleanupRecordedSession(*record, path, decision);
    }
}

Adoption DBusService::adoptSession(const SessionRecord& record, const fs::path& path) {
    // The pidfd names the process for good; the start time read after it was taken proves it is the one recorded.
    auto managerFd = Utils::processFd(record.manager.pid);
    if (!managerFd || Utils::processStartTime(record.manager.pid) != record.manager.startTime) {
        return Adoption::ManagerEnded; // it ended while it was being taken back
    }
    auto user = findUserInfo(record.user);
    if (!user) {
        const auto account = Utils::getUserInfo(record.user, false);
        if (!account) {
            warning("%s: user not found: `%s', session id: %u", adoptSelf, record.user.c_str(), record.sid);
            return Adoption::AccountGone;
        }
        user = std::make_shared<UserEx>(*account);
    }
    auto session = restoreSession(record, user);
    size_t live = 0;
    for (auto& slot : session->transports) {
        auto fd = Utils::processFd(slot.pid);
        // A transport that ended meanwhile keeps its slot without a pidfd: the transport watcher then reports it
        // ended, as it would have had the daemon been there.
        if (slot.pid <= 0 || !fd || Utils::processStartTime(slot.pid) != slot.startTime) {
            continue;
        }
        slot.adopt(slot.pid, slot.startTime, std::move(fd), slot.remoteaddr);
        ++live;
    }
    // The seamless limit counts on the steady clock, which does not outlive the daemon: a seamless session taken
    // back without a transport counts it again from now.
    if (session->seamlessMode && live == 0) {
        session->seamlessStopTime = std::chrono::steady_clock::now();
    }
    auto watchFd = Utils::UniqueFd(fcntl(managerFd.get(), F_DUPFD_CLOEXEC, 0));
    session->pid2fd = std::move(managerFd);
    session->recordFile = path;
    if (!sessions.add(session)) {
        // Two records of one session (a file copied by hand): the one taken back first is the session.
        warning("%s: session id taken, record skipped, session id: %u, path: %s", adoptSelf, record.sid, path.c_str());
        session->kept = true;
        return Adoption::Adopt;
    }
    {
        std::lock_guard guard(children.lock);
        children.entries.push_back(ChildEntry{
            record.manager.pid, Utils::waitProcessEnd(record.manager.pid, std::move(watchFd)).share(), false});
    }
    notice("%s: session adopted, session id: %u, display: %u, user: %s, pid: %d, logind session: %s, transports: %u"
           " (%u running)",
           adoptSelf, record.sid, static_cast<uint32_t>(record.display), record.user.c_str(), record.manager.pid,
           record.systemdSid.c_str(), static_cast<uint32_t>(record.transports.size()), static_cast<uint32_t>(live));
    return Adoption::Adopt;
}

void DBusService::cleanupRecordedSession(const SessionRecord& record, const fs::path& path, Adoption decision) {
    if (decision == Adoption::LogindForgot) {
        // The same process, but nothing tracks its session any more: it is ended, not taken back.
        auto fd = Utils::processFd(record.manager.pid);
        if (Utils::processStartTime(record.manager.pid) == record.manager.startTime) {
            Utils::signalProcess(fd.get(), SIGTERM);
        }
    }
    const auto signalled = signalCgroup(record.systemdCgroup, SIGTERM);
    if (signalled > 0) {
        info("%s: session id: %u, processes left: %u, terminated", adoptSelf, record.sid,
             static_cast<uint32_t>(signalled));
        // Whatever did not leave after the grace period is killed; off the start, which goes on meanwhile.
        startWorker([cgroup = record.systemdCgroup] { signalCgroup(cgroup, SIGKILL); }, scopeGrace);
    }
    std::error_code ec;
    struct stat status {};
    if (record.xauthInode != 0 && ::stat(record.xauthfile.c_str(), &status) == 0 &&
        status.st_ino == record.xauthInode) {
        fs::remove(record.xauthfile, ec);
    }
    if (!record.runtimedir.empty()) {
        fs::remove(record.runtimedir / "vexa" / ("dbus_session_" + std::to_string(record.sid)), ec);
    }
    fs::remove(path, ec);
}

void DBusService::saveRecordLater(const SessionPtr& session) {
    startWorker([this, session] { records.save(session); });
}

bool DBusService::restartPending() const {
    char* unit = nullptr;
    if (sd_pid_get_unit(getpid(), &unit) < 0) {
        return false;
    }
    const std::string name(unit);
    std::free(unit);
    std::string jobs;
    try {
        jobs = Utils::runStdoutCommand("/usr/bin/systemctl", {"list-jobs", "--no-legend", "--no-pager", name});
    } catch (const std::exception& err) {
        warning("%s: exception: %s", "restartPending", err.what());
        return false;
    }
    return jobRestartsUnit(jobs, name);
}

void DBusService::sessionsKeep() {
    records.saveAll();
    auto kept = sessions.takeAll();
    std::vector<pid_t> managers;
    for (auto& session : kept) {
        // No other thread of the service runs any more: the records are this thread's alone.
        session->kept = true;
        managers.push_back(session->pid2);
    }
    notice("%s: sessions kept for the next start: %u", "sessionsKeep", static_cast<uint32_t>(kept.size()));
    kept.clear();
    endChildren("sessionsKeep", managers);
}

} // namespace Vexa
