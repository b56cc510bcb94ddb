#include "connector.h"

#include <xcb/xcbext.h>

#include <array>
#include <cstring>
#include <sys/uio.h>
#include <string>

#include "common/logger.h"
#include "common/process.h"
#include "common/vexa_error.h"
#include "layout.h"
#include "modeline.h"

namespace Vexa::Xcb {

namespace {

constexpr std::string_view authName = "MIT-MAGIC-COOKIE-1";

} // namespace

Connector::Connector(uint32_t displayNum, const std::vector<uint8_t>* cookie) {
    if (!connectToDisplay(displayNum, cookie)) {
        throw xcb_error("Connector");
    }
}

Connector::~Connector() {
    if (conn) {
        disconnect(conn);
    }
}

bool Connector::connectToDisplay(uint32_t displayNum, const std::vector<uint8_t>* cookie) {
    constexpr const char* self = "connectToDisplay";
    const auto addr = ":" + std::to_string(displayNum);
    int screenNum = 0;
    if (cookie) {
        std::string name(authName);
        std::vector<char> data(cookie->begin(), cookie->end());
        xcb_auth_info_t auth{static_cast<int>(name.size()), name.data(), static_cast<int>(data.size()), data.data()};
        conn = xcb_connect_to_display_with_auth_info(addr.c_str(), &auth, &screenNum);
        if (!data.empty()) {
            std::memset(data.data(), 0, data.size());
        }
    } else {
        conn = xcb_connect(addr.c_str(), &screenNum);
    }
    if (xcb_connection_has_error(conn)) {
        Syslog::error("%s: %s failed, addr: %s", self, "xcb_connect", addr.c_str());
        return false;
    }
    setup = xcb_get_setup(conn);
    if (!setup) {
        Syslog::error("%s: %s failed", self, "xcb_get_setup");
        return false;
    }
    for (auto it = xcb_setup_roots_iterator(setup); it.rem; --screenNum, xcb_screen_next(&it)) {
        if (screenNum == 0) {
            screen = it.data;
            break;
        }
    }
    if (!screen) {
        Syslog::error("%s: %s failed", self, "xcb_setup_roots");
        return false;
    }
    const auto* const formats = xcb_setup_pixmap_formats(setup);
    for (int i = 0; i < xcb_setup_pixmap_formats_length(setup); ++i) {
        if (formats[i].depth == screen->root_depth) {
            format = &formats[i];
            break;
        }
    }
    if (!format) {
        Syslog::error("%s: %s failed, error: %s", self, "xcb_setup_pixmap_format", "no format of the root depth");
        return false;
    }
    const auto* const randr = xcb_get_extension_data(conn, &xcb_randr_id);
    if (!randr || !randr->present) {
        Syslog::error("%s: %s extension not found", self, "RANDR");
        return false;
    }
    const auto version = getReply1(xcb_randr_query_version_reply, conn, xcb_randr_query_version(conn, 1, 6));
    if (!version.reply) {
        Syslog::error("%s: %s failed, error: %s", self, "xcb_randr_query_version",
                      version.error ? std::to_string(version.error->error_code).c_str() : "no reply");
        return false;
    }
    return true;
}

void Connector::toSyslogError(const GenericError& error, std::string_view function) {
    const std::string name(function);
    if (error) {
        Syslog::error("%s: %s failed, error code: 0x%02x, major: 0x%02x, minor: 0x%04x, sequence: 0x%04x", "Connector",
                      name.c_str(), error->error_code, error->major_code, error->minor_code, error->sequence);
    } else {
        Syslog::error("%s: %s failed", "Connector", name.c_str());
    }
}

bool Connector::checked(xcb_void_cookie_t cookie, std::string_view function) const {
    if (GenericError error(xcb_request_check(conn, cookie), std::free); error) {
        toSyslogError(error, function);
        return false;
    }
    return true;
}

bool Connector::hasError() const {
    return !conn || xcb_connection_has_error(conn) != 0;
}

xcb_window_t Connector::windowRoot() const {
    return screen ? screen->root : xcb_window_t{XCB_WINDOW_NONE};
}

uint8_t Connector::depth() const {
    return screen ? screen->root_depth : 0;
}

uint8_t Connector::bitsPerPixel() const {
    return format ? format->bits_per_pixel : 0;
}

std::optional<Rect> Connector::getWindowGeometry(xcb_window_t window, bool translate) const {
    const auto geometry = getReply1(xcb_get_geometry_reply, conn, xcb_get_geometry(conn, window));
    if (!geometry.reply) {
        toSyslogError(geometry.error, "xcb_get_geometry");
        return std::nullopt;
    }
    Rect rect{geometry.reply->x, geometry.reply->y, geometry.reply->width, geometry.reply->height};
    if (translate) {
        const auto moved = getReply1(xcb_translate_coordinates_reply, conn,
                                     xcb_translate_coordinates(conn, window, windowRoot(), 0, 0));
        if (!moved.reply) {
            toSyslogError(moved.error, "xcb_translate_coordinates");
            return std::nullopt;
        }
        rect.x = moved.reply->dst_x;
        rect.y = moved.reply->dst_y;
    }
    return rect;
}

xcb_atom_t Connector::getAtom(std::string_view name, bool onlyIfExists) const {
    const auto atom =
        getReply1(xcb_intern_atom_reply, conn,
                  xcb_intern_atom(conn, onlyIfExists ? 1 : 0, static_cast<uint16_t>(name.size()), name.data()));
    if (!atom.reply) {
        toSyslogError(atom.error, "xcb_intern_atom");
        return XCB_ATOM_NONE;
    }
    return atom.reply->atom;
}

ScreenResources Connector::randrCurrentScreenResources() const {
    auto resources = getReply1(xcb_randr_get_screen_resources_current_reply, conn,
                               xcb_randr_get_screen_resources_current(conn, windowRoot()));
    if (!resources.reply) {
        toSyslogError(resources.error, "xcb_randr_get_screen_resources_current");
    }
    return resources.reply;
}

std::optional<ScreenSizeRange> Connector::getScreenSizes() const {
    const auto range =
        getReply1(xcb_randr_get_screen_size_range_reply, conn, xcb_randr_get_screen_size_range(conn, windowRoot()));
    if (!range.reply) {
        toSyslogError(range.error, "xcb_randr_get_screen_size_range");
        return std::nullopt;
    }
    return ScreenSizeRange{range.reply->min_width, range.reply->min_height, range.reply->max_width,
                           range.reply->max_height};
}

OutputInfo Connector::randrOutputInfo(xcb_randr_output_t output, xcb_timestamp_t configTimestamp) const {
    auto info =
        getReply1(xcb_randr_get_output_info_reply, conn, xcb_randr_get_output_info(conn, output, configTimestamp));
    if (!info.reply) {
        toSyslogError(info.error, "xcb_randr_get_output_info");
    }
    return info.reply;
}

CrtcInfo Connector::randrCrtcInfo(xcb_randr_crtc_t crtc, xcb_timestamp_t configTimestamp) const {
    auto info = getReply1(xcb_randr_get_crtc_info_reply, conn, xcb_randr_get_crtc_info(conn, crtc, configTimestamp));
    if (!info.reply) {
        toSyslogError(info.error, "xcb_randr_get_crtc_info");
    }
    return info.reply;
}

bool Connector::randrSetScreenSize(uint16_t width, uint16_t height) const {
    return checked(
        xcb_randr_set_screen_size_checked(conn, windowRoot(), width, height, millimetres(width), millimetres(height)),
        "xcb_randr_set_screen_size");
}

bool Connector::randrOutputModeAdd(xcb_randr_output_t output, xcb_randr_mode_t mode) const {
    return checked(xcb_randr_add_output_mode_checked(conn, output, mode), "xcb_randr_add_output_mode");
}

bool Connector::randrOutputModeDelete(xcb_randr_output_t output, xcb_randr_mode_t mode) const {
    return checked(xcb_randr_delete_output_mode_checked(conn, output, mode), "xcb_randr_delete_output_mode");
}

bool Connector::randrCrtcConnectToOutputMode(xcb_randr_crtc_t crtc, int16_t x, int16_t y, xcb_randr_output_t output,
                                             xcb_randr_mode_t mode, xcb_timestamp_t configTimestamp) const {
    const auto config = getReply1(xcb_randr_set_crtc_config_reply, conn,
                                  xcb_randr_set_crtc_config(conn, crtc, XCB_CURRENT_TIME, configTimestamp, x, y, mode,
                                                            XCB_RANDR_ROTATION_ROTATE_0, mode ? 1 : 0, &output));
    if (!config.reply || config.reply->status != XCB_RANDR_SET_CONFIG_SUCCESS) {
        toSyslogError(config.error, "xcb_randr_set_crtc_config");
        return false;
    }
    return true;
}

bool Connector::randrCrtcDisconnect(xcb_randr_crtc_t crtc, xcb_timestamp_t configTimestamp) const {
    return randrCrtcConnectToOutputMode(crtc, 0, 0, XCB_NONE, XCB_NONE, configTimestamp);
}

bool Connector::randrSetOutputPrimary(xcb_randr_output_t output) const {
    return checked(xcb_randr_set_output_primary_checked(conn, windowRoot(), output), "xcb_randr_set_output_primary");
}

std::vector<MonitorInfo> Connector::randrMonitors() const {
    const auto monitors = getReply1(xcb_randr_get_monitors_reply, conn, xcb_randr_get_monitors(conn, windowRoot(), 0));
    if (!monitors.reply) {
        toSyslogError(monitors.error, "xcb_randr_get_monitors");
        return {};
    }
    std::vector<MonitorInfo> result;
    for (auto it = xcb_randr_get_monitors_monitors_iterator(monitors.reply.get()); it.rem;
         xcb_randr_monitor_info_next(&it)) {
        const auto& m = *it.data;
        result.push_back(MonitorInfo{m.name, m.primary != 0, m.automatic != 0, Rect{m.x, m.y, m.width, m.height}});
    }
    return result;
}

bool Connector::randrSetMonitor(const MonitorInfo& monitor, uint32_t mmWidth, uint32_t mmHeight,
                                const std::vector<xcb_randr_output_t>& outputs) const {
    // The request carries the record with its outputs right behind it. libxcb 1.15's xcb_randr_set_monitor
    // measures a record with outputs wrongly (the connection ends with XCB_CONN_CLOSED_REQ_LEN_EXCEED), so the
    // request goes out as the protocol lays it out.
    std::vector<uint32_t> body(sizeof(xcb_randr_monitor_info_t) / sizeof(uint32_t) + outputs.size());
    const xcb_randr_monitor_info_t info{monitor.name,
                                        monitor.primary ? uint8_t{1} : uint8_t{0},
                                        0,
                                        static_cast<uint16_t>(outputs.size()),
                                        monitor.rect.x,
                                        monitor.rect.y,
                                        monitor.rect.width,
                                        monitor.rect.height,
                                        mmWidth,
                                        mmHeight};
    std::memcpy(body.data(), &info, sizeof(info));
    if (!outputs.empty()) {
        std::memcpy(body.data() + sizeof(info) / sizeof(uint32_t), outputs.data(),
                    outputs.size() * sizeof(xcb_randr_output_t));
    }
    static const xcb_protocol_request_t request{2, &xcb_randr_id, XCB_RANDR_SET_MONITOR, 1};
    xcb_randr_set_monitor_request_t header{};
    header.window = windowRoot();
    std::array<iovec, 4> parts{};
    parts[2] = {&header, sizeof(header)};
    parts[3] = {body.data(), body.size() * sizeof(uint32_t)};
    return checked(xcb_void_cookie_t{xcb_send_request(conn, XCB_REQUEST_CHECKED, &parts[2], &request)},
                   "xcb_randr_set_monitor");
}

bool Connector::randrDeleteMonitor(xcb_atom_t name) const {
    return checked(xcb_randr_delete_monitor_checked(conn, windowRoot(), name), "xcb_randr_delete_monitor");
}

xcb_randr_mode_t Connector::cvtCreateMode(uint16_t width, uint16_t height, int refresh) const {
    constexpr const char* self = "cvtCreateMode";
    std::optional<ModeLine> line;
    try {
        line = cvtModeLine(width, height, refresh, [](const std::list<std::string>& args) {
            return Utils::runStdoutCommand(cvtProgram, args);
        });
    } catch (const vexa_error&) {
        // runStdoutCommand has logged why the tool did not run.
    }
    if (!line) {
        throw xcb_error(self);
    }
    Syslog::debug("%s: %s", self, line->text.c_str());

    xcb_randr_mode_info_t info{};
    info.width = line->hdisplay;
    info.height = line->vdisplay;
    info.dot_clock = static_cast<uint32_t>(static_cast<float>(line->clockMHz) * 1000000.0F);
    info.hsync_start = line->hsyncStart;
    info.hsync_end = line->hsyncEnd;
    info.htotal = line->htotal;
    info.vsync_start = line->vsyncStart;
    info.vsync_end = line->vsyncEnd;
    info.vtotal = line->vtotal;
    info.name_len = static_cast<uint16_t>(line->name.size());
    info.mode_flags = (line->hsyncPositive ? XCB_RANDR_MODE_FLAG_HSYNC_POSITIVE : XCB_RANDR_MODE_FLAG_HSYNC_NEGATIVE) |
                      (line->vsyncPositive ? XCB_RANDR_MODE_FLAG_VSYNC_POSITIVE : XCB_RANDR_MODE_FLAG_VSYNC_NEGATIVE);
    const auto created = getReply1(xcb_randr_create_mode_reply, conn,
                                   xcb_randr_create_mode(conn, windowRoot(), info, info.name_len, line->name.c_str()));
    if (!created.reply) {
        toSyslogError(created.error, "xcb_randr_create_mode");
        throw xcb_error(self);
    }
    return created.reply->mode;
}

} // namespace Vexa::Xcb
