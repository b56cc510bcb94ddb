// vexa_notify: shows a message to the user of the session it runs in. The service starts it as the user, with
// the session's display, X authority and session bus. The session's notification service is used when one is
// running; otherwise a small window of its own shows the header, the message and an OK button.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <poll.h>
#include <string>
#include <string_view>
#include <vector>

#include <systemd/sd-bus.h>
#include <xcb/xcb.h>

#include "notify.h"

namespace {

using namespace Vexa::Notify;

constexpr const char* notificationsName = "org.freedesktop.Notifications";
constexpr uint64_t busTimeoutUsec = 5'000'000;
constexpr int windowTimeoutMs = 60'000; // a message below the critical level closes itself after this
constexpr size_t columns = 64;
constexpr size_t maxLines = 16;
constexpr int charWidth = 6; // the core font "fixed"
constexpr int lineHeight = 15;
constexpr int margin = 16;
constexpr int buttonWidth = 72;
constexpr int buttonHeight = 26;

struct BusDeleter {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageDeleter {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};

// True when the session's notification service took the message.
bool notifyOnSessionBus(const Options& options) {
    sd_bus* raw = nullptr;
    if (sd_bus_open_user(&raw) < 0) {
        return false;
    }
    std::unique_ptr<sd_bus, BusDeleter> bus(raw);
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    // Asked first so that no service is started on demand for a session that runs none.
    int owned = 0;
    if (sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "NameHasOwner", &error, &reply, "s", notificationsName) < 0 ||
        sd_bus_message_read(reply, "b", &owned) < 0 || !owned) {
        sd_bus_error_free(&error);
        sd_bus_message_unref(reply);
        return false;
    }
    sd_bus_message_unref(reply);
    reply = nullptr;

    sd_bus_message* raw_call = nullptr;
    if (sd_bus_message_new_method_call(bus.get(), &raw_call, notificationsName, "/org/freedesktop/Notifications",
                                       notificationsName, "Notify") < 0) {
        return false;
    }
    std::unique_ptr<sd_bus_message, MessageDeleter> call(raw_call);
    const char* summary = options.header.empty() ? "Vexa" : options.header.c_str();
    if (sd_bus_message_append(call.get(), "susss", "Vexa", 0u, "", summary, options.message.c_str()) < 0 ||
        sd_bus_message_append(call.get(), "as", 0) < 0 ||
        sd_bus_message_append(call.get(), "a{sv}", 1, "urgency", "y", urgency(options.level)) < 0 ||
        sd_bus_message_append(call.get(), "i", -1) < 0) {
        return false;
    }
    const int sent = sd_bus_call(bus.get(), call.get(), busTimeoutUsec, &error, &reply);
    if (sent < 0) {
        std::fprintf(stderr, "vexa_notify: Notify failed: %s (%d)\n", error.message ? error.message : "no message",
                     -sent);
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    return sent >= 0;
}

xcb_atom_t atom(xcb_connection_t* conn, const char* name) {
    auto* reply =
        xcb_intern_atom_reply(conn, xcb_intern_atom(conn, 0, static_cast<uint16_t>(std::strlen(name)), name), nullptr);
    const xcb_atom_t value = reply ? reply->atom : static_cast<xcb_atom_t>(XCB_ATOM_NONE);
    std::free(reply);
    return value;
}

void drawText(xcb_connection_t* conn, xcb_window_t window, xcb_gcontext_t gc, int x, int y, std::string_view text) {
    // A core text request carries at most 255 bytes.
    const auto length = static_cast<uint8_t>(std::min<size_t>(text.size(), 255));
    xcb_image_text_8(conn, length, window, gc, static_cast<int16_t>(x), static_cast<int16_t>(y), text.data());
}

// The window of its own: until OK is pressed (button, Return, Escape, Space), the window is closed, or the
// time runs out (not for a critical message).
int showWindow(const Options& options) {
    int screenNumber = 0;
    xcb_connection_t* conn = xcb_connect(nullptr, &screenNumber);
    if (xcb_connection_has_error(conn)) {
        std::fprintf(stderr, "vexa_notify: no display to show the message on\n");
        xcb_disconnect(conn);
        return 1;
    }
    auto screens = xcb_setup_roots_iterator(xcb_get_setup(conn));
    for (int i = 0; i < screenNumber && screens.rem; ++i) {
        xcb_screen_next(&screens);
    }
    const xcb_screen_t* screen = screens.data;
    const auto lines = wrapText(options.message, columns, maxLines);
    const int width = static_cast<int>(columns) * charWidth + 2 * margin;
    const int height = margin + lineHeight * static_cast<int>(lines.size() + 2) + buttonHeight + margin;
    const int x = std::max(0, (screen->width_in_pixels - width) / 2);
    const int y = std::max(0, (screen->height_in_pixels - height) / 3);

    const xcb_window_t window = xcb_generate_id(conn);
    const uint32_t values[] = {screen->white_pixel, XCB_EVENT_MASK_EXPOSURE | XCB_EVENT_MASK_BUTTON_PRESS |
                                                        XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_STRUCTURE_NOTIFY};
    xcb_create_window(conn, XCB_COPY_FROM_PARENT, window, screen->root, static_cast<int16_t>(x),
                      static_cast<int16_t>(y), static_cast<uint16_t>(width), static_cast<uint16_t>(height), 1,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, XCB_CW_BACK_PIXEL | XCB_CW_EVENT_MASK,
                      values);
    const std::string title = options.header.empty() ? "Vexa" : options.header;
    xcb_change_property(conn, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                        static_cast<uint32_t>(title.size()), title.data());
    xcb_change_property(conn, XCB_PROP_MODE_REPLACE, window, atom(conn, "_NET_WM_NAME"), atom(conn, "UTF8_STRING"), 8,
                        static_cast<uint32_t>(title.size()), title.data());
    const xcb_atom_t protocols = atom(conn, "WM_PROTOCOLS");
    const xcb_atom_t deleteWindow = atom(conn, "WM_DELETE_WINDOW");
    xcb_change_property(conn, XCB_PROP_MODE_REPLACE, window, protocols, XCB_ATOM_ATOM, 32, 1, &deleteWindow);

    const xcb_font_t font = xcb_generate_id(conn);
    xcb_open_font(conn, font, 5, "fixed");
    const xcb_gcontext_t gc = xcb_generate_id(conn);
    const uint32_t gcValues[] = {screen->black_pixel, screen->white_pixel, font};
    xcb_create_gc(conn, gc, window, XCB_GC_FOREGROUND | XCB_GC_BACKGROUND | XCB_GC_FONT, gcValues);
    xcb_map_window(conn, window);
    xcb_flush(conn);

    const int buttonX = width - margin - buttonWidth;
    const int buttonY = height - margin - buttonHeight;
    const auto draw = [&] {
        drawText(conn, window, gc, margin, margin + lineHeight - 3, title);
        for (size_t i = 0; i < lines.size(); ++i) {
            drawText(conn, window, gc, margin, margin + lineHeight * static_cast<int>(i + 2) - 3, lines[i]);
        }
        const xcb_rectangle_t button{static_cast<int16_t>(buttonX), static_cast<int16_t>(buttonY), buttonWidth,
                                     buttonHeight};
        xcb_poly_rectangle(conn, window, gc, 1, &button);
        drawText(conn, window, gc, buttonX + (buttonWidth - 2 * charWidth) / 2, buttonY + 17, "OK");
        xcb_flush(conn);
    };

    pollfd polled{xcb_get_file_descriptor(conn), POLLIN, 0};
    const int timeout = options.level >= 2 ? -1 : windowTimeoutMs;
    bool done = false;
    while (!done) {
        xcb_generic_event_t* event = xcb_poll_for_event(conn);
        if (!event) {
            if (xcb_connection_has_error(conn) || poll(&polled, 1, timeout) == 0) {
                break;
            }
            continue;
        }
        switch (event->response_type & 0x7f) {
        case XCB_EXPOSE:
            draw();
            break;
        case XCB_BUTTON_PRESS: {
            const auto* press = reinterpret_cast<const xcb_button_press_event_t*>(event);
            done = press->event_x >= buttonX && press->event_x < buttonX + buttonWidth && press->event_y >= buttonY &&
                   press->event_y < buttonY + buttonHeight;
            break;
        }
        case XCB_KEY_PRESS: {
            // Return, Escape, space and keypad Enter on the usual keyboard maps.
            const auto code = reinterpret_cast<const xcb_key_press_event_t*>(event)->detail;
            done = code == 36 || code == 9 || code == 65 || code == 104;
            break;
        }
        case XCB_CLIENT_MESSAGE:
            done = reinterpret_cast<const xcb_client_message_event_t*>(event)->data.data32[0] == deleteWindow;
            break;
        default:
            break;
        }
        std::free(event);
    }
    xcb_disconnect(conn);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string_view> args(argv + 1, argv + argc);
    std::string problem;
    const auto options = parseArguments(args, problem);
    if (!options) {
        std::fprintf(stderr, "vexa_notify: %s\nusage: vexa_notify [--header TEXT] [--message TEXT] [--level N]\n",
                     problem.c_str());
        return 2;
    }
    if (notifyOnSessionBus(*options)) {
        return 0;
    }
    return showWindow(*options);
}
