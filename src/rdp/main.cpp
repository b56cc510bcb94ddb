// vexa_rdp_transport: one process per RDP connection, started by systemd's socket activation (the accepted socket
// is descriptor 3) or given a descriptor with --fd.

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>

#include <systemd/sd-daemon.h>

#include "common/logger.h"
#include "rdp/config.h"
#include "rdp/transport.h"

namespace {

constexpr const char* usage = "usage: vexa_rdp_transport [--fd N] [--config PATH] [--log none|info|debug|trace]\n"
                              "Serves one RDP connection: systemd's first passed socket, or descriptor N.\n";

// The journal when systemd started us with stderr connected to it; a console with time stamps otherwise.
void setLogLevel(const std::string& name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): called before any other thread starts
    if (!std::getenv("JOURNAL_STREAM")) {
        Vexa::Syslog::setDebugLevel(Vexa::DebugLevel::Console);
        return;
    }
    try {
        Vexa::Syslog::setDebugLevel(name);
    } catch (const std::exception&) {
        Vexa::Syslog::setDebugLevel(Vexa::DebugLevel::Info);
        Vexa::Syslog::warning("%s: unknown log level `%s', info used", "main", name.c_str());
    }
}

} // namespace

int main(int argc, char** argv) {
    const Vexa::Syslog log("vexa_rdp_transport");
    std::vector<std::string_view> args(argv + 1, argv + argc);
    std::string error;
    const auto options = Vexa::Rdp::parseOptions(args, &error);
    if (!options) {
        std::fprintf(stderr, "vexa_rdp_transport: %s\n%s", error.c_str(), usage);
        return 2;
    }
    if (options->help) {
        std::fputs(usage, stdout);
        return 0;
    }
    setLogLevel(options->logLevel.value_or("info"));
    auto config = Vexa::Rdp::loadRdpConfig(options->configPath, &error);
    if (!config) {
        Vexa::Syslog::error("%s: configuration `%s' refused: %s", "main", options->configPath.c_str(), error.c_str());
        return 1;
    }
    if (!options->logLevel) {
        setLogLevel(config->logLevel);
    }

    int fd = -1;
    if (options->fd) {
        fd = *options->fd;
    } else {
        const int count = sd_listen_fds(1);
        if (count != 1) {
            Vexa::Syslog::error("%s: expected one socket from systemd, got %d; use --fd N otherwise", "main", count);
            return 1;
        }
        fd = SD_LISTEN_FDS_START;
    }
    if (sd_is_socket(fd, AF_UNSPEC, SOCK_STREAM, 0) <= 0) {
        Vexa::Syslog::error("%s: descriptor %d is not a stream socket", "main", fd);
        return 1;
    }
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    return Vexa::Rdp::serveConnection(fd, *config);
}
