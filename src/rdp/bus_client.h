#pragma once

// The transport's calls to the session service on the system bus (sd-bus). Blocking calls, one thread: the
// event loop's. Every call logs its own failure and returns the failure value the service itself uses for it.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "rdp/monitor_layout.h"

#include <sys/types.h>

struct sd_bus;
struct sd_bus_slot;

namespace Vexa::Rdp {

// One method of the interface as this client calls it: its name and D-Bus signatures. The table is checked
// against the interface description by the unit tests.
struct BusMethod {
    std::string_view name;
    std::string_view in;
    std::string_view out;
};
const std::vector<BusMethod>& busMethods();

// Where the service moves a transport that shows the login screen: the user's display.
struct DisplaySwitch {
    int32_t display = -1;
    std::string xauthfile;
};

class BusClient {
public:
    // Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS honoured); throws std::runtime_error when it cannot.
    BusClient();
    ~BusClient();
    BusClient(const BusClient&) = delete;
    BusClient& operator=(const BusClient&) = delete;

    // The session id (positive) or the service's negative code; -4 when the call itself failed.
    int32_t sessionRequest(const std::string& params, uint32_t timeoutSec);
    std::string sessionInfoJson(uint32_t session);
    bool connectRdpTransport(uint32_t session, uint32_t timeout);
    void proxyListenStarted(uint32_t session, bool listening);
    void proxyClientConnected(uint32_t session, const std::string& address);
    void proxySessionConnected(uint32_t session, uint32_t pid, const std::string& address);
    bool displayResize(uint32_t display, uint16_t width, uint16_t height, uint32_t timeoutSec);
    bool transportDisplayMonitorsChanged(uint32_t display, const std::vector<Monitor>& monitors, uint32_t timeoutSec);
    uint32_t transportDisplayInactivity(uint32_t display);
    void transportDisplayInactivityEvent(uint32_t display);
    void transportDisplayShutdown(uint32_t display);
    // (redirect bits, clipboard limit in bytes).
    std::pair<uint32_t, uint32_t> transportDisplayPolicyRedirect(uint32_t display);
    // (failures, interval in seconds).
    std::pair<uint32_t, uint32_t> transportDisplayRdpKeepAlive(uint32_t display);
    // Whether every client logs in on the login screen, also one that sent a password.
    bool transportPolicyShowLoginHelper();
    // The login screen's session for the transport `pid`: its display and authority file; nullopt when refused.
    std::optional<DisplaySwitch> loginHelperStart(const std::string& user, pid_t pid, uint32_t timeoutSec);
    // The ids of the running sessions.
    std::vector<uint32_t> sessions();

    // Hands every signalTransportDisplaySwitchTo of the service that names `pid` to `onSwitch`, from dispatch().
    bool watchDisplaySwitch(pid_t pid, std::function<void(DisplaySwitch)> onSwitch);
    // The connection's descriptor, readable when messages arrived.
    int fd() const;
    // Handles what arrived without waiting; false once the connection is gone.
    bool dispatch();

private:
    sd_bus* bus = nullptr;
    sd_bus_slot* switchSlot = nullptr;
    pid_t switchPid = 0;
    std::function<void(DisplaySwitch)> onSwitch;
};

} // namespace Vexa::Rdp
