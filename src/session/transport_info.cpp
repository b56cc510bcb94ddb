#include "transport_info.h"

#include <csignal>

#include "common/logger.h"
#include "common/utils.h"

namespace Vexa {

TransportInfo::~TransportInfo() {
    reset(false);
}

bool TransportInfo::isConnected() const noexcept {
    return Utils::processRunning(pid);
}

bool TransportInfo::notAlive() const noexcept {
    return pid >= 1 && !Utils::processRunning(pid);
}

void TransportInfo::reset(bool keepProcess) {
    if (!keepProcess && Utils::processRunning(pid)) {
        Syslog::debug("%s: kill pid: %d, remoteaddr: `%s'", "reset", pid, remoteaddr.c_str());
        kill(pid, SIGTERM);
    }
    pid = 0;
    remoteaddr.clear();
}

} // namespace Vexa
