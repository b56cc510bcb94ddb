#pragma once

// The service's client connection to one session's X server, made as root with the session's X authority cookie,
// for the display's geometry (RandR screen size, modes, outputs, CRTCs, monitors). Not thread-safe: one thread at a
// time uses a connector (the owner serialises, see Session::geometryLock).
// The constructor throws xcb_error; every other operation reports its failure to the log (toSyslogError) and
// returns an empty, zero or false result; cvtCreateMode throws as well.

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <vector>

#include <xcb/randr.h>
#include <xcb/xcb.h>

namespace Vexa {

class xcb_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

namespace Xcb {

template <typename T>
using GenericReply = std::shared_ptr<T>;
using GenericError = std::shared_ptr<xcb_generic_error_t>;

template <typename T>
struct ReplyError {
    GenericReply<T> reply;
    GenericError error;
};

// The library's reply function with an error out-pointer, both results owned (freed with free).
template <typename T, typename Cookie>
ReplyError<T> getReply1(T* (*func)(xcb_connection_t*, Cookie, xcb_generic_error_t**), xcb_connection_t* conn,
                        Cookie cookie) {
    xcb_generic_error_t* error = nullptr;
    T* reply = func(conn, cookie, &error);
    return {GenericReply<T>(reply, std::free), GenericError(error, std::free)};
}

struct Rect {
    int16_t x = 0, y = 0;
    uint16_t width = 0, height = 0;
};

using ScreenResources = GenericReply<xcb_randr_get_screen_resources_current_reply_t>;
using OutputInfo = GenericReply<xcb_randr_get_output_info_reply_t>;
using CrtcInfo = GenericReply<xcb_randr_get_crtc_info_reply_t>;

struct ScreenSizeRange {
    uint16_t minWidth = 0, minHeight = 0, maxWidth = 0, maxHeight = 0;
};

// A RandR monitor as the server lists it.
struct MonitorInfo {
    xcb_atom_t name = XCB_ATOM_NONE;
    bool primary = false, automatic = false;
    Rect rect;
};

class Connector {
public:
    // Connects to ":<displayNum>" with the cookie (MIT-MAGIC-COOKIE-1), or without authorisation when null.
    Connector(uint32_t displayNum, const std::vector<uint8_t>* cookie);
    virtual ~Connector();

    Connector(const Connector&) = delete;
    Connector& operator=(const Connector&) = delete;

    bool connectToDisplay(uint32_t displayNum, const std::vector<uint8_t>* cookie);
    static void toSyslogError(const GenericError& error, std::string_view function);

    // The connection broke (the server went away or sent something we could not read): make a new connector.
    bool hasError() const;
    xcb_window_t windowRoot() const;
    uint8_t depth() const;
    uint8_t bitsPerPixel() const;

    // The window's place and size; translated to root coordinates when asked.
    std::optional<Rect> getWindowGeometry(xcb_window_t window, bool translate) const;
    xcb_atom_t getAtom(std::string_view name, bool onlyIfExists) const;

    // RandR.
    ScreenResources randrCurrentScreenResources() const;
    std::optional<ScreenSizeRange> getScreenSizes() const;
    OutputInfo randrOutputInfo(xcb_randr_output_t output, xcb_timestamp_t configTimestamp) const;
    CrtcInfo randrCrtcInfo(xcb_randr_crtc_t crtc, xcb_timestamp_t configTimestamp) const;
    // The screen's size in pixels; its size in millimetres follows from 96 dots per inch.
    bool randrSetScreenSize(uint16_t width, uint16_t height) const;
    bool randrOutputModeAdd(xcb_randr_output_t output, xcb_randr_mode_t mode) const;
    bool randrOutputModeDelete(xcb_randr_output_t output, xcb_randr_mode_t mode) const;
    bool randrCrtcConnectToOutputMode(xcb_randr_crtc_t crtc, int16_t x, int16_t y, xcb_randr_output_t output,
                                      xcb_randr_mode_t mode, xcb_timestamp_t configTimestamp) const;
    bool randrCrtcDisconnect(xcb_randr_crtc_t crtc, xcb_timestamp_t configTimestamp) const;
    bool randrSetOutputPrimary(xcb_randr_output_t output) const;
    std::vector<MonitorInfo> randrMonitors() const;
    // Defines (or replaces, by name) a monitor of that geometry with the given outputs, possibly none.
    bool randrSetMonitor(const MonitorInfo& monitor, uint32_t mmWidth, uint32_t mmHeight,
                         const std::vector<xcb_randr_output_t>& outputs) const;
    bool randrDeleteMonitor(xcb_atom_t name) const;
    // A new mode of that size with the timing of /usr/bin/cvt (lowering the refresh rate until the pixel clock is
    // at most 300 MHz); its id. Throws xcb_error("cvtCreateMode").
    xcb_randr_mode_t cvtCreateMode(uint16_t width, uint16_t height, int refresh) const;

private:
    bool checked(xcb_void_cookie_t cookie, std::string_view function) const;

    void (*disconnect)(xcb_connection_t*) = xcb_disconnect;
    xcb_connection_t* conn = nullptr;
    const xcb_setup_t* setup = nullptr;
    xcb_screen_t* screen = nullptr;
    const xcb_format_t* format = nullptr;
};

} // namespace Xcb
} // namespace Vexa
