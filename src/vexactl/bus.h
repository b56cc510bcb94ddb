#pragma once

// vexactl's connection to the daemon: blocking sd-bus calls on the system bus, like any other client. Before a
// call goes out the caller's roles (its groups) are held against the role table, so that a refusal is told in
// plain words instead of the method's bare failure value; the bus and the daemon still decide. One thread.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

struct sd_bus;
struct sd_bus_message;

namespace Vexa::Ctl {

// The exit status of vexactl, one per kind of failure.
enum class Exit : int {
    Ok = 0,
    Failed = 1,       // the daemon answered that it did not do it
    Usage = 2,        // a wrong command line
    UnknownId = 3,    // no such session, or no session of that user
    AccessDenied = 4, // the caller's role does not allow it (by the role table, the bus or the daemon)
    NotRunning = 5,   // the daemon (or the system bus) is not there
};

class CtlError : public std::runtime_error {
public:
    CtlError(Exit code, const std::string& text) : std::runtime_error(text), code(code) {}
    Exit code;
};

// A reply, released when it goes out of scope.
class Reply {
public:
    explicit Reply(sd_bus_message* message) : msg(message) {}
    ~Reply();
    Reply(Reply&& other) noexcept : msg(std::exchange(other.msg, nullptr)) {}
    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;
    Reply& operator=(Reply&&) = delete;

    std::string string() const;
    bool boolean() const;
    uint32_t u32() const;
    int32_t i32() const;
    uint64_t u64() const;
    double real() const;
    std::vector<std::string> strings() const;
    std::vector<std::pair<std::string, uint32_t>> userSessions() const;

private:
    void read(const char* type, void* value) const;
    sd_bus_message* msg;
};

class Bus {
public:
    // Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS honoured); CtlError NotRunning when it cannot.
    Bus();
    ~Bus();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    // Calls a method of ru.kelvo.vexa with arguments of D-Bus signature `types`. Throws CtlError: AccessDenied
    // when the caller's role cannot call it (checked first) or the bus refuses, NotRunning when the name has no
    // owner, Failed for any other error.
    template <typename... Args>
    Reply call(const char* method, const char* types, Args... args) {
        checkRole(method);
        sd_bus_message* request = newCall(interface, method);
        return send(method, request, appendArgs(request, types, args...));
    }

    // The daemon's metrics (interface ru.kelvo.vexa.Metrics of the same object), in the Prometheus text format.
    std::string metricsText();

    // CtlError AccessDenied when the caller's role cannot call `method` (root can call everything).
    void checkRole(const char* method) const;

private:
    static constexpr const char* interface = "ru.kelvo.vexa";
    sd_bus_message* newCall(const char* iface, const char* method);
    static int appendArgs(sd_bus_message* request, const char* types, ...);
    Reply send(const char* method, sd_bus_message* request, int appended);
    sd_bus* bus = nullptr;
};

} // namespace Vexa::Ctl
