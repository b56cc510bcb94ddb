#include "rdp/bus_client.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <systemd/sd-bus.h>

#include "common/logger.h"
#include "common/utils.h"

namespace Vexa::Rdp {

namespace {

constexpr const char* service = "ru.kelvo.vexa";
constexpr const char* object = "/ru/kelvo/vexa";
constexpr const char* interface = "ru.kelvo.vexa";
// What sd-bus takes by default, for the calls that answer at once.
constexpr uint64_t quickTimeoutUsec = 25'000'000;

struct Message {
    sd_bus_message* msg = nullptr;
    ~Message() { sd_bus_message_unref(msg); }
};

struct Error {
    sd_bus_error err = SD_BUS_ERROR_NULL;
    ~Error() { sd_bus_error_free(&err); }
};

// Sends the call and waits for the reply; null on failure (logged).
template <typename... Args>
sd_bus_message* call(sd_bus* bus, const char* method, uint64_t timeoutUsec, const char* types, Args... args) {
    Message request;
    int r = sd_bus_message_new_method_call(bus, &request.msg, service, object, interface, method);
    if (r >= 0) {
        r = sd_bus_message_append(request.msg, types, args...);
    }
    if (r < 0) {
        Syslog::error("%s: %s failed, error: %s, code: %d", method, "sd_bus_message_append",
                      Utils::errnoText(-r).c_str(), -r);
        return nullptr;
    }
    Error error;
    sd_bus_message* reply = nullptr;
    r = sd_bus_call(bus, request.msg, timeoutUsec, &error.err, &reply);
    if (r < 0) {
        Syslog::error("%s: %s failed, error: %s, code: %d", method, "sd_bus_call",
                      error.err.message ? error.err.message : Utils::errnoText(-r).c_str(), -r);
        return nullptr;
    }
    return reply;
}

template <typename T>
std::optional<T> readOne(sd_bus_message* reply, const char* method, const char* type) {
    Message owned{reply};
    if (!reply) {
        return std::nullopt;
    }
    T value{};
    if (const int r = sd_bus_message_read(reply, type, &value); r < 0) {
        Syslog::error("%s: %s failed, error: %s, code: %d", method, "sd_bus_message_read", Utils::errnoText(-r).c_str(),
                      -r);
        return std::nullopt;
    }
    return value;
}

std::pair<uint32_t, uint32_t> unpack(uint64_t pack) {
    return {static_cast<uint32_t>(pack >> 32), static_cast<uint32_t>(pack & 0xffffffffu)};
}

} // namespace

const std::vector<BusMethod>& busMethods() {
    static const std::vector<BusMethod> table{
        {"vexaSessionRequest", "s", "i"},
        {"vexaSessionInfoJson", "u", "s"},
        {"vexaConnectRdpTransport", "uu", "b"},
        {"proxyListenStarted", "ub", ""},
        {"proxyClientConnected", "us", ""},
        {"proxySessionConnected", "uus", ""},
        {"vexaDisplayResize", "uqq", "b"},
        {"vexaTransportDisplayMonitorsChanged", "ua(uiiuuuuuuu)", "b"},
        {"vexaTransportDisplayInactivity", "u", "u"},
        {"vexaTransportDisplayInactivityEvent", "u", ""},
        {"vexaTransportDisplayShutdown", "u", ""},
        {"vexaTransportDisplayPolicyRedirect", "u", "t"},
        {"vexaTransportDisplayRdpKeepAlive", "u", "t"},
        {"vexaTransportPolicyShowLoginHelper", "", "b"},
        {"vexaLoginHelperStart", "si", "(is)"},
        {"vexaSessions", "", "a(su)"},
    };
    return table;
}

BusClient::BusClient() {
    if (const int r = sd_bus_open_system(&bus); r < 0) {
        throw std::runtime_error(std::string("sd_bus_open_system failed: ") + Utils::errnoText(-r).c_str());
    }
}

BusClient::~BusClient() {
    sd_bus_slot_unref(switchSlot);
    sd_bus_flush_close_unref(bus);
}

int32_t BusClient::sessionRequest(const std::string& params, uint32_t timeoutSec) {
    return readOne<int32_t>(call(bus, "vexaSessionRequest", uint64_t{timeoutSec} * 1'000'000, "s", params.c_str()),
                            "vexaSessionRequest", "i")
        .value_or(-4);
}

std::string BusClient::sessionInfoJson(uint32_t session) {
    Message reply{call(bus, "vexaSessionInfoJson", quickTimeoutUsec, "u", session)};
    const char* text = nullptr;
    if (!reply.msg || sd_bus_message_read(reply.msg, "s", &text) < 0 || !text) {
        return {};
    }
    return text;
}

bool BusClient::connectRdpTransport(uint32_t session, uint32_t timeout) {
    // sd-bus reads a boolean into an int.
    return readOne<int>(call(bus, "vexaConnectRdpTransport", quickTimeoutUsec, "uu", session, timeout),
                        "vexaConnectRdpTransport", "b")
               .value_or(0) != 0;
}

void BusClient::proxyListenStarted(uint32_t session, bool listening) {
    Message reply{call(bus, "proxyListenStarted", quickTimeoutUsec, "ub", session, static_cast<int>(listening))};
}

void BusClient::proxyClientConnected(uint32_t session, const std::string& address) {
    Message reply{call(bus, "proxyClientConnected", quickTimeoutUsec, "us", session, address.c_str())};
}

void BusClient::proxySessionConnected(uint32_t session, uint32_t pid, const std::string& address) {
    Message reply{call(bus, "proxySessionConnected", quickTimeoutUsec, "uus", session, pid, address.c_str())};
}

bool BusClient::displayResize(uint32_t display, uint16_t width, uint16_t height, uint32_t timeoutSec) {
    return readOne<int>(call(bus, "vexaDisplayResize", uint64_t{timeoutSec} * 1'000'000, "uqq", display, width, height),
                        "vexaDisplayResize", "b")
               .value_or(0) != 0;
}

bool BusClient::transportDisplayMonitorsChanged(uint32_t display, const std::vector<Monitor>& monitors,
                                                uint32_t timeoutSec) {
    constexpr const char* method = "vexaTransportDisplayMonitorsChanged";
    Message request;
    int r = sd_bus_message_new_method_call(bus, &request.msg, service, object, interface, method);
    if (r >= 0) {
        r = sd_bus_message_append(request.msg, "u", display);
    }
    if (r >= 0) {
        r = sd_bus_message_open_container(request.msg, 'a', "(uiiuuuuuuu)");
    }
    for (size_t i = 0; r >= 0 && i < monitors.size(); ++i) {
        const Monitor& m = monitors[i];
        r = sd_bus_message_append(request.msg, "(uiiuuuuuuu)", m.flags, m.left, m.top, m.width, m.height,
                                  m.physicalWidth, m.physicalHeight, m.orientation, m.desktopScale, m.deviceScale);
    }
    if (r >= 0) {
        r = sd_bus_message_close_container(request.msg);
    }
    if (r < 0) {
        Syslog::error("%s: %s failed, error: %s, code: %d", method, "sd_bus_message_append",
                      Utils::errnoText(-r).c_str(), -r);
        return false;
    }
    Error error;
    Message reply;
    r = sd_bus_call(bus, request.msg, uint64_t{timeoutSec} * 1'000'000, &error.err, &reply.msg);
    if (r < 0) {
        Syslog::error("%s: %s failed, error: %s, code: %d", method, "sd_bus_call",
                      error.err.message ? error.err.message : Utils::errnoText(-r).c_str(), -r);
        return false;
    }
    int result = 0;
    return sd_bus_message_read(reply.msg, "b", &result) >= 0 && result != 0;
}

uint32_t BusClient::transportDisplayInactivity(uint32_t display) {
    return readOne<uint32_t>(call(bus, "vexaTransportDisplayInactivity", quickTimeoutUsec, "u", display),
                             "vexaTransportDisplayInactivity", "u")
        .value_or(0);
}

void BusClient::transportDisplayInactivityEvent(uint32_t display) {
    Message reply{call(bus, "vexaTransportDisplayInactivityEvent", quickTimeoutUsec, "u", display)};
}

void BusClient::transportDisplayShutdown(uint32_t display) {
    Message reply{call(bus, "vexaTransportDisplayShutdown", quickTimeoutUsec, "u", display)};
}

std::pair<uint32_t, uint32_t> BusClient::transportDisplayPolicyRedirect(uint32_t display) {
    return unpack(readOne<uint64_t>(call(bus, "vexaTransportDisplayPolicyRedirect", quickTimeoutUsec, "u", display),
                                    "vexaTransportDisplayPolicyRedirect", "t")
                      .value_or(0));
}

std::pair<uint32_t, uint32_t> BusClient::transportDisplayRdpKeepAlive(uint32_t display) {
    return unpack(readOne<uint64_t>(call(bus, "vexaTransportDisplayRdpKeepAlive", quickTimeoutUsec, "u", display),
                                    "vexaTransportDisplayRdpKeepAlive", "t")
                      .value_or(0));
}

bool BusClient::transportPolicyShowLoginHelper() {
    return readOne<int>(call(bus, "vexaTransportPolicyShowLoginHelper", quickTimeoutUsec, ""),
                        "vexaTransportPolicyShowLoginHelper", "b")
               .value_or(0) != 0;
}

std::optional<DisplaySwitch> BusClient::loginHelperStart(const std::string& user, pid_t pid, uint32_t timeoutSec) {
    constexpr const char* method = "vexaLoginHelperStart";
    Message reply{call(bus, method, uint64_t{timeoutSec} * 1'000'000, "si", user.c_str(), static_cast<int32_t>(pid))};
    int32_t display = -1;
    const char* path = nullptr;
    if (!reply.msg) {
        return std::nullopt;
    }
    if (const int r = sd_bus_message_read(reply.msg, "(is)", &display, &path); r < 0) {
        Syslog::error("%s: %s failed, error: %s, code: %d", method, "sd_bus_message_read", Utils::errnoText(-r).c_str(),
                      -r);
        return std::nullopt;
    }
    if (display < 0 || !path || !*path) {
        return std::nullopt;
    }
    return DisplaySwitch{display, path};
}

std::vector<uint32_t> BusClient::sessions() {
    constexpr const char* method = "vexaSessions";
    std::vector<uint32_t> ids;
    Message reply{call(bus, method, quickTimeoutUsec, "")};
    if (!reply.msg || sd_bus_message_enter_container(reply.msg, 'a', "(su)") < 0) {
        return ids;
    }
    const char* user = nullptr;
    uint32_t id = 0;
    while (sd_bus_message_read(reply.msg, "(su)", &user, &id) > 0) {
        ids.push_back(id);
    }
    return ids;
}

bool BusClient::watchDisplaySwitch(pid_t pid, std::function<void(DisplaySwitch)> handler) {
    switchPid = pid;
    onSwitch = std::move(handler);
    // Only the service's own signals: the bus delivers none of another sender through this match.
    const int r = sd_bus_match_signal(
        bus, &switchSlot, service, object, interface, "signalTransportDisplaySwitchTo",
        [](sd_bus_message* message, void* data, sd_bus_error*) -> int {
            auto* self = static_cast<BusClient*>(data);
            int32_t pid = 0;
            int32_t display = -1;
            const char* path = nullptr;
            if (sd_bus_message_read(message, "iis", &pid, &display, &path) < 0 || pid != self->switchPid) {
                return 0;
            }
            self->onSwitch({display, path ? path : ""});
            return 0;
        },
        this);
    if (r < 0) {
        Syslog::error("%s: %s failed, error: %s, code: %d", "watchDisplaySwitch", "sd_bus_match_signal",
                      Utils::errnoText(-r).c_str(), -r);
        return false;
    }
    return true;
}

int BusClient::fd() const {
    return sd_bus_get_fd(bus);
}

bool BusClient::dispatch() {
    int r = 0;
    while ((r = sd_bus_process(bus, nullptr)) > 0) {
    }
    if (r < 0) {
        Syslog::error("%s: %s failed, error: %s, code: %d", "dispatch", "sd_bus_process", Utils::errnoText(-r).c_str(),
                      -r);
        return false;
    }
    return true;
}

} // namespace Vexa::Rdp
