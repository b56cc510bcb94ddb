#pragma once

// The X side of the shared clipboard: owns CLIPBOARD and PRIMARY with the client's text and serves it to X
// applications (UTF8_STRING, STRING, TEXT, TARGETS), notices when an X application takes CLIPBOARD, and asks
// the owner for its text. Uses the XDisplay's connection; bound to the event loop's thread.

#include <functional>
#include <optional>
#include <string>

#include <xcb/xcb.h>

#include "rdp/x_display.h"

namespace Vexa::Rdp {

class XClipboard {
public:
    // Hooks itself into the display's events; the display must outlive it.
    explicit XClipboard(XDisplay& display);
    ~XClipboard();
    XClipboard(const XClipboard&) = delete;
    XClipboard& operator=(const XClipboard&) = delete;

    // Offers the text to X applications until an X application takes the clipboard.
    void setText(std::string utf8);
    // Asks the owner of CLIPBOARD for text of at most `limit` bytes; the answer (nullopt: none) comes
    // through onText.
    void requestText(size_t limit);

    // An X application took CLIPBOARD.
    std::function<void()> onOwnerChanged;
    std::function<void(std::optional<std::string>)> onText;

private:
    bool handle(const xcb_generic_event_t* event);
    void serve(const xcb_selection_request_event_t& request);
    void received(const xcb_selection_notify_event_t& notify);
    xcb_atom_t atom(const char* name);

    XDisplay& display;
    xcb_connection_t* conn;
    xcb_window_t window = XCB_NONE;
    xcb_atom_t clipboard = XCB_NONE, targets = XCB_NONE, utf8 = XCB_NONE, text = XCB_NONE, incr = XCB_NONE,
               property = XCB_NONE;
    std::optional<std::string> owned;
    size_t requestLimit = 0;
    bool requesting = false;
};

} // namespace Vexa::Rdp
