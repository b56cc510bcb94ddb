#include "transport_info.h"

#include <csignal>

#include "common/logger.h"

namespace Vexa {

TransportInfo::~TransportInfo() {
    reset(false);
}

void TransportInfo::attach(pid_t transportPid, Utils::UniqueFd transportFd, const std::string& address) {
    pid = transportPid;
    pidfd = std::move(transportFd);
    remoteaddr = address;
    // A procfs read, which does not block: the pidfd taken before keeps the process from being another one.
    startTime = Utils::processStartTime(transportPid).value_or(0);
}

void TransportInfo::adopt(pid_t transportPid, uint64_t transportStart, Utils::UniqueFd transportFd,
                          const std::string& address) {
    pid = transportPid;
    startTime = transportStart;
    pidfd = std::move(transportFd);
    remoteaddr = address;
}

bool TransportInfo::isConnected() const noexcept {
    return pid > 0 && Utils::processAlive(pidfd.get());
}

bool TransportInfo::notAlive() const noexcept {
    return pid >= 1 && !isConnected();
}

void TransportInfo::reset(bool keepProcess) {
    if (!keepProcess && isConnected()) {
        Syslog::debug("%s: kill pid: %d, remoteaddr: `%s'", "reset", pid, remoteaddr.c_str());
        Utils::signalProcess(pidfd.get(), SIGTERM);
    }
    pid = 0;
    startTime = 0;
    remoteaddr.clear();
    pidfd.reset();
}

} // namespace Vexa
