#include "event_loop.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace Vexa {

namespace {

int makeEventFd() {
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    return fd;
}

void signalFd(int fd) noexcept {
    const uint64_t one = 1;
    // A full counter already wakes the reader; nothing else can fail here.
    [[maybe_unused]] auto written = write(fd, &one, sizeof(one));
}

void drainFd(int fd) noexcept {
    uint64_t value = 0;
    [[maybe_unused]] auto got = read(fd, &value, sizeof(value));
}

} // namespace

EventLoop::EventLoop(sdbus::IConnection& conn) : connection(conn), wakeFd(makeEventFd()) {
    try {
        exitFd = makeEventFd();
    } catch (...) {
        close(wakeFd);
        throw;
    }
}

EventLoop::~EventLoop() {
    close(wakeFd);
    close(exitFd);
}

void EventLoop::run() {
    for (;;) {
        while (connection.processPendingRequest()) {
        }

        const auto pollData = connection.getEventLoopPollData();
        std::array<pollfd, 3> fds{{
            {pollData.fd, pollData.events, 0},
            {wakeFd, POLLIN, 0},
            {exitFd, POLLIN, 0},
        }};

        if (poll(fds.data(), fds.size(), pollData.getPollTimeout()) < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw std::system_error(errno, std::generic_category(), "poll");
        }
        if (fds[2].revents & POLLIN) {
            return;
        }
        if (fds[1].revents & POLLIN) {
            drainFd(wakeFd);
        }
    }
}

void EventLoop::wake() noexcept {
    signalFd(wakeFd);
}

void EventLoop::exit() noexcept {
    signalFd(exitFd);
}

} // namespace Vexa
