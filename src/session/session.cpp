#include "session.h"

#include <algorithm>
#include <csignal>
#include <fstream>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>

#include "common/logger.h"
#include "xcb/display_geometry.h"
#include "xcb/xauth_file.h"
#include "profile.h"
#include "redirect_policy.h"

namespace Vexa {

Session::Session(uint32_t id, std::shared_ptr<UserEx> owner, const ServiceDefaults& defaults)
    : sid(id), user(std::move(owner)), durationLimit(defaults.durationTimeout),
      inactivityLimit(defaults.inactivityTimeout), disconnectLimit(defaults.disconnectTimeout),
      seamlessLimit(defaults.seamlessTimeout), clipboardLimit(defaults.clipboardLimit),
      startedTimepoint(std::chrono::system_clock::now()), onlinedTimepoint(startedTimepoint),
      redirectPolicy(redirectPolicyWord(defaults.redirect)), policyConnect(defaults.connectPolicy),
      disconnectedFreeze(defaults.disconnectedFreeze), rdpKeepAliveInterval(defaults.keepAliveInterval),
      rdpKeepAliveFailures(defaults.keepAliveFailures) {}

Session::~Session() {
    if (kept) {
        for (auto& slot : transports) {
            slot.reset(true);
        }
        return;
    }
    for (auto& slot : transports) {
        slot.reset(false);
    }
    if (pid2 > 0) {
        Syslog::debug("kill %s, pid: %d", "xsession", pid2);
        terminate();
    }
    // A remote-assistance program serves this display only.
    Utils::signalProcess(assistanceFd.get(), SIGTERM);
    // Files that are not there are no error.
    std::error_code ec;
    struct stat status {};
    if (xauthInode != 0 && ::stat(xauthfile.c_str(), &status) == 0 && status.st_ino == xauthInode) {
        std::filesystem::remove(xauthfile, ec);
    }
    if (const auto busFile = dbusSessionPath(); !busFile.empty()) {
        std::filesystem::remove(busFile, ec);
    }
    if (!recordFile.empty()) {
        std::filesystem::remove(recordFile, ec);
    }
    if (user && user.use_count() == 1 && user->profileMounted && umount(user->profileMountPoint.c_str()) != 0) {
        startProfileCloseJob(user->profileMountPoint, static_cast<uid_t>(user->uid));
    }
}

bool Session::createXcbConnector() {
    xcbConnector.reset();
    try {
        const auto cookie = Utils::readXauthfile(xauthfile);
        if (cookie.empty()) {
            throw std::runtime_error("readXauthfile");
        }
        xcbConnector = std::make_unique<Xcb::Connector>(static_cast<uint32_t>(display), &cookie);
        Syslog::debug("%s: %s success", "createXcbConnector", "X11 connector");
        return true;
    } catch (const std::exception&) {
        Syslog::error("%s: %s failed", "createXcbConnector", "X11 connector");
        return false;
    }
}

bool Session::updateGeometry(const Xcb::Layout& layout) {
    const std::lock_guard guard(geometryLock);
    if ((!xcbConnector || xcbConnector->hasError()) && !createXcbConnector()) {
        return false;
    }
    return Xcb::applyLayout(*xcbConnector, layout);
}

void Session::addConnectInfo(int pid, const std::string& remoteaddr, Utils::UniqueFd pidfd) {
    auto free = std::find_if(transports.begin(), transports.end(), [](const auto& slot) { return slot.pid == 0; });
    if (free != transports.end()) {
        free->attach(pid, std::move(pidfd), remoteaddr);
    }
}

TransportInfo* Session::findConnectInfo(int pid) {
    auto found =
        std::find_if(transports.begin(), transports.end(), [pid](const auto& slot) { return slot.pid == pid; });
    return found != transports.end() ? &*found : nullptr;
}

bool Session::haveActiveConnects() const {
    return std::any_of(transports.begin(), transports.end(), [](const auto& slot) { return slot.isConnected(); });
}

void Session::resetAllConnects() {
    for (auto& slot : transports) {
        slot.reset(false);
    }
}

std::string Session::scopeUnit() const {
    if (!systemdCgroup.empty()) {
        return std::filesystem::path(systemdCgroup).filename().string();
    }
    return systemdSid.empty() ? std::string() : "session-" + systemdSid + ".scope";
}

void Session::resourceControlSet(ResourceControl control, const std::string& value, bool userLevel) {
    if (userLevel && !user) {
        return;
    }
    auto& limits = userLevel ? user->userLimits : sessionLimits;
    if (value.empty()) {
        limits.erase(control);
    } else {
        limits[control] = value;
    }
    if (userLevel) {
        sessionLimits.erase(control);
    }
}

std::string Session::resourceControlValue(ResourceControl control, bool userLevel) const {
    if (userLevel && !user) {
        return {};
    }
    const auto& limits = userLevel ? user->userLimits : sessionLimits;
    const auto found = limits.find(control);
    if (found == limits.end()) {
        return {};
    }
    if (control == ResourceControl::CpuQuota && !found->second.ends_with('%')) {
        return found->second + '%';
    }
    return found->second;
}

void Session::resourceLimitsJoin(const ResourceLimits& limits, bool userLevel) {
    for (const auto& [control, value] : limits) {
        resourceControlSet(control, value, userLevel);
    }
}

std::list<std::string> Session::environments() const {
    const std::string displayNumber = std::to_string(display);
    const std::string runtimeDir = user ? user->runtimedir.string() : std::string();
    std::list<std::string> env{
        "DISPLAY=:" + displayNumber,
        "XAUTHORITY=" + xauthfile.string(),
        "XDG_RUNTIME_DIR=" + runtimeDir,
    };
    // A path ending in '/' has no file name and never matches.
    if (std::filesystem::path(xsessionProg).filename() == "kiv-wm") {
        env.emplace_back("VEXA_KIV_WM=1");
    }
    env.emplace_back("KSCREEND_DISABLED=1");
    const std::string name = user ? user->name : std::string();
    env.push_back("USER=" + name);
    env.push_back("LOGNAME=" + name);
    env.push_back("HOME=" + (user ? user->home : std::string()));
    env.push_back("PCSCLITE_CSOCK_NAME=" + runtimeDir + "/vexa/pcsc_comm_" + displayNumber);
    return env;
}

void Session::sessionFreeze(bool freeze) const {
    if (freeze && (haveActiveConnects() || !disconnectedFreeze)) {
        return;
    }
    const auto control = std::filesystem::path("/sys/fs/cgroup/" + systemdCgroup) / "cgroup.freeze";
    std::error_code ec;
    if (systemdCgroup.empty() || !std::filesystem::exists(control, ec)) {
        return;
    }
    std::ofstream out(control);
    out << (freeze ? "1" : "0") << std::endl;
}

bool Session::frozen() const {
    if (systemdCgroup.empty()) {
        return false;
    }
    std::ifstream in(std::filesystem::path("/sys/fs/cgroup/" + systemdCgroup) / "cgroup.events");
    std::string key;
    std::string value;
    while (in >> key >> value) {
        if (key == "frozen") {
            return value == "1";
        }
    }
    return false;
}

bool Session::terminate() const {
    if (pid2 <= 0) {
        return false;
    }
    sessionFreeze(false);
    return Utils::signalProcess(pid2fd.get(), SIGTERM);
}

std::filesystem::path Session::dbusSessionPath() const {
    if (!user) {
        return {};
    }
    return user->runtimedir / "vexa" / ("dbus_session_" + std::to_string(sid));
}

} // namespace Vexa
