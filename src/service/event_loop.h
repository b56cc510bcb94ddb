#pragma once

// The D-Bus dispatcher loop of the main thread. We run our own poll() loop instead of the binding's so that a
// signal emitted from another thread leaves at once (wake) and so that shutdown can be requested from the
// watcher thread at any time, also before the loop starts (exit).
// run() belongs to the main thread; wake() and exit() may be called from any thread.

#include <sdbus-c++/IConnection.h>

namespace Vexa {

class EventLoop {
public:
    explicit EventLoop(sdbus::IConnection& connection);
    ~EventLoop();

    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    // Dispatches bus messages until exit() is called. Throws sdbus::Error when the bus connection is lost.
    void run();
    // Makes the loop flush outgoing messages (after an emission from another thread).
    void wake() noexcept;
    // Makes run() return.
    void exit() noexcept;

private:
    sdbus::IConnection& connection;
    int wakeFd = -1;
    int exitFd = -1;
};

} // namespace Vexa
