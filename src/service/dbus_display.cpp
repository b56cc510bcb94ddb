// Display geometry of sessions: sizes and monitor layouts asked for by transports and administrators, applied
// through RandR on a start worker (a layout may need the mode-line tool and several round trips to the X server).

#include <chrono>

#include "dbus_service.h"
#include "xcb/layout.h"

namespace Vexa {

namespace {

using MonitorStruct =
    sdbus::Struct<uint32_t, int32_t, int32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t>;

// The method's name where its worker logs (a name at namespace scope needs no capture).
constexpr const char* sessionGeometry = "vexaSessionGeometry";

} // namespace

std::optional<Xcb::Layout> DBusService::requestedLayout(const char* method, uint32_t width, uint32_t height) const {
    auto layout = Xcb::screenLayout(width, height);
    if (const auto* refused = std::get_if<std::string>(&layout)) {
        error("%s: geometry refused, %s", method, refused->c_str());
        return std::nullopt;
    }
    return std::get<Xcb::Layout>(std::move(layout));
}

bool DBusService::waitSessionGeometryUpdate(Session& session, const Xcb::Layout& layout) {
    constexpr const char* self = "waitSessionGeometryUpdate";
    // A frozen X server would never answer: the wait would hold a worker for good.
    if (session.frozen()) {
        error("%s: session frozen, session id: %u, display: %d", self, session.sid, session.display);
        return false;
    }
    const auto started = std::chrono::steady_clock::now();
    if (!session.updateGeometry(layout)) {
        error("%s: geometry not changed, session id: %u, display: %d, width: %u, height: %u", self, session.sid,
              session.display, layout.width, layout.height);
        return false;
    }
    const auto took =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started).count();
    info("%s: session id: %u, display: %d, width: %u, height: %u, monitors: %zu, time: %lldms", self, session.sid,
         session.display, layout.width, layout.height, layout.monitors.size(), static_cast<long long>(took));
    return true;
}

void DBusService::replyGeometryUpdate(const char* method, const ReplyPtr<bool>& reply, SessionPtr session,
                                      std::optional<Xcb::Layout> layout) {
    if (!session || !layout) {
        sendReply(method, *reply, false);
        return;
    }
    replyFromWorker(method, reply, false, [this, session = std::move(session), layout = std::move(*layout)] {
        return waitSessionGeometryUpdate(*session, layout);
    });
}

DBusService::SessionPtr DBusService::findDisplaySessionLogged(const char* method, uint32_t display) const {
    auto session = findDisplaySession(display);
    if (!session) {
        warning("%s: display not found: %u", method, display);
    }
    return session;
}

void DBusService::vexaSessionGeometryAuthorized(sdbus::Result<>&& result, uint32_t session, uint16_t width,
                                                uint16_t height) {
    auto reply = std::make_shared<PendingReply<>>(std::move(result));
    // True when a worker answers.
    const bool handedOver = boundary(sessionGeometry, false, [&] {
        debug("%s: session id: %u, width: %u, height: %u", sessionGeometry, session, width, height);
        auto found = findSession(session);
        auto layout = requestedLayout(sessionGeometry, width, height);
        if (!found) {
            warning("%s: session not found: 0x%08x", sessionGeometry, session);
            return false;
        }
        if (!layout) {
            return false;
        }
        auto job = [this, reply, found = std::move(found), layout = std::move(*layout)] {
            boundary(sessionGeometry, [&] { waitSessionGeometryUpdate(*found, layout); });
            sendReply(sessionGeometry, *reply);
        };
        if (!startPool.submit(std::move(job))) {
            error("%s: service stopping", sessionGeometry);
            return false;
        }
        return true;
    });
    if (!handedOver) {
        sendReply(sessionGeometry, *reply);
    }
}

void DBusService::vexaSessionGeometry(sdbus::Result<>&& result, uint32_t session, uint16_t width, uint16_t height) {
    authorizedCall("vexaSessionGeometry", std::move(result), &DBusService::vexaSessionGeometryAuthorized, session,
                   width, height);
}

void DBusService::vexaDisplayResizeAuthorized(sdbus::Result<bool>&& result, uint32_t display, uint16_t width,
                                              uint16_t height) {
    constexpr const char* self = "vexaDisplayResize";
    answerAsync(self, std::move(result), false, [&](const ReplyPtr<bool>& reply) {
        debug("%s: display: %u, width: %u, height: %u", self, display, width, height);
        replyGeometryUpdate(self, reply, findDisplaySessionLogged(self, display), requestedLayout(self, width, height));
    });
}

void DBusService::vexaDisplayResize(sdbus::Result<bool>&& result, uint32_t display, uint16_t width, uint16_t height) {
    authorizedCall("vexaDisplayResize", std::move(result), &DBusService::vexaDisplayResizeAuthorized, display, width,
                   height);
}

void DBusService::vexaTransportDisplayMonitorsChangedAuthorized(sdbus::Result<bool>&& result, uint32_t display,
                                                                std::vector<MonitorStruct> monitors) {
    constexpr const char* self = "vexaTransportDisplayMonitorsChanged";
    answerAsync(self, std::move(result), false, [&](const ReplyPtr<bool>& reply) {
        debug("%s: display: %u, monitors: %zu", self, display, monitors.size());
        std::vector<Xcb::MonitorRequest> requests;
        requests.reserve(monitors.size());
        for (const auto& m : monitors) {
            requests.push_back(Xcb::MonitorRequest{m.get<0>(), m.get<1>(), m.get<2>(), m.get<3>(), m.get<4>(),
                                                   m.get<5>(), m.get<6>(), m.get<7>(), m.get<8>(), m.get<9>()});
        }
        auto layout = Xcb::layoutMonitors(requests);
        if (const auto* refused = std::get_if<std::string>(&layout)) {
            error("%s: monitors refused, display: %u, %s", self, display, refused->c_str());
            sendReply(self, *reply, false);
            return;
        }
        replyGeometryUpdate(self, reply, findDisplaySessionLogged(self, display),
                            std::get<Xcb::Layout>(std::move(layout)));
    });
}

void DBusService::vexaTransportDisplayMonitorsChanged(
    sdbus::Result<bool>&& result, uint32_t display,
    std::vector<
        sdbus::Struct<uint32_t, int32_t, int32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t>>
        monitors) {
    authorizedCall("vexaTransportDisplayMonitorsChanged", std::move(result),
                   &DBusService::vexaTransportDisplayMonitorsChangedAuthorized, display, std::move(monitors));
}

} // namespace Vexa
