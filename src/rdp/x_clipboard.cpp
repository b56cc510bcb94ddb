#include "rdp/x_clipboard.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <xcb/xfixes.h>

#include "common/logger.h"

namespace Vexa::Rdp {

namespace {

template <typename T>
std::unique_ptr<T, decltype(&std::free)> own(T* reply) {
    return {reply, &std::free};
}

} // namespace

XClipboard::XClipboard(XDisplay& x) : display(x), conn(x.connection()) {
    clipboard = atom("CLIPBOARD");
    targets = atom("TARGETS");
    utf8 = atom("UTF8_STRING");
    text = atom("TEXT");
    incr = atom("INCR");
    property = atom("VEXA_CLIPBOARD");
    window = xcb_generate_id(conn);
    const uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_create_window(conn, XCB_COPY_FROM_PARENT, window, display.rootWindow(), -1, -1, 1, 1, 0,
                      XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, &mask);
    xcb_xfixes_select_selection_input(conn, window, clipboard, XCB_XFIXES_SELECTION_EVENT_MASK_SET_SELECTION_OWNER);
    xcb_flush(conn);
    display.otherEvents = [this](const xcb_generic_event_t* event) { return handle(event); };
}

XClipboard::~XClipboard() {
    display.otherEvents = nullptr;
    xcb_destroy_window(conn, window);
    xcb_flush(conn);
}

xcb_atom_t XClipboard::atom(const char* name) {
    auto reply =
        own(xcb_intern_atom_reply(conn, xcb_intern_atom(conn, 0, static_cast<uint16_t>(strlen(name)), name), nullptr));
    return reply ? reply->atom : XCB_NONE;
}

void XClipboard::setText(std::string utf8Text) {
    owned = std::move(utf8Text);
    xcb_set_selection_owner(conn, window, clipboard, XCB_CURRENT_TIME);
    xcb_set_selection_owner(conn, window, XCB_ATOM_PRIMARY, XCB_CURRENT_TIME);
    xcb_flush(conn);
}

void XClipboard::requestText(size_t limit) {
    requestLimit = limit;
    requesting = true;
    xcb_delete_property(conn, window, property);
    xcb_convert_selection(conn, window, clipboard, utf8, property, XCB_CURRENT_TIME);
    xcb_flush(conn);
}

bool XClipboard::handle(const xcb_generic_event_t* event) {
    const uint8_t type = event->response_type & 0x7f;
    switch (type) {
    case XCB_SELECTION_REQUEST:
        serve(*reinterpret_cast<const xcb_selection_request_event_t*>(event));
        return true;
    case XCB_SELECTION_CLEAR:
        if (reinterpret_cast<const xcb_selection_clear_event_t*>(event)->selection == clipboard) {
            owned.reset();
        }
        return true;
    case XCB_SELECTION_NOTIFY:
        received(*reinterpret_cast<const xcb_selection_notify_event_t*>(event));
        return true;
    case XCB_PROPERTY_NOTIFY:
        return true;
    default:
        break;
    }
    if (type == display.xfixesFirstEvent() + XCB_XFIXES_SELECTION_NOTIFY) {
        const auto* notify = reinterpret_cast<const xcb_xfixes_selection_notify_event_t*>(event);
        if (notify->selection == clipboard && notify->owner != window && notify->owner != XCB_NONE) {
            owned.reset();
            if (onOwnerChanged) {
                onOwnerChanged();
            }
        }
        return true;
    }
    return false;
}

void XClipboard::serve(const xcb_selection_request_event_t& request) {
    xcb_selection_notify_event_t reply{};
    reply.response_type = XCB_SELECTION_NOTIFY;
    reply.time = request.time;
    reply.requestor = request.requestor;
    reply.selection = request.selection;
    reply.target = request.target;
    // Old clients name no property: the target's name serves.
    reply.property = request.property == XCB_NONE ? request.target : request.property;
    // What one request may carry, in bytes, leaving room for the request's own header.
    const size_t maxBytes = size_t{xcb_get_maximum_request_length(conn)} * 4 - 64;
    const bool textTarget = request.target == utf8 || request.target == text || request.target == XCB_ATOM_STRING;
    if (owned && request.target == targets) {
        const xcb_atom_t list[] = {targets, utf8, text, XCB_ATOM_STRING};
        xcb_change_property(conn, XCB_PROP_MODE_REPLACE, request.requestor, reply.property, XCB_ATOM_ATOM, 32, 4, list);
    } else if (owned && textTarget && owned->size() <= maxBytes) {
        // STRING is Latin-1; ASCII text is the same in both, and X applications asking STRING take what comes.
        xcb_change_property(conn, XCB_PROP_MODE_REPLACE, request.requestor, reply.property,
                            request.target == XCB_ATOM_STRING ? xcb_atom_t{XCB_ATOM_STRING} : utf8, 8,
                            static_cast<uint32_t>(owned->size()), owned->data());
    } else {
        // Nothing owned, an unknown target or more than one request carries: refused.
        reply.property = XCB_NONE;
    }
    // SendEvent carries 32 bytes, more than the notify's structure has.
    char event[32] = {};
    static_assert(sizeof(reply) <= sizeof(event));
    std::memcpy(event, &reply, sizeof(reply));
    xcb_send_event(conn, 0, request.requestor, XCB_EVENT_MASK_NO_EVENT, event);
    xcb_flush(conn);
}

void XClipboard::received(const xcb_selection_notify_event_t& notify) {
    if (!requesting || notify.requestor != window) {
        return;
    }
    requesting = false;
    std::optional<std::string> result;
    if (notify.property != XCB_NONE) {
        // One read of at most the limit (in 4-byte units, rounded up); a larger text is cut at the limit.
        const uint32_t units = static_cast<uint32_t>((requestLimit + 3) / 4);
        auto reply = own(xcb_get_property_reply(
            conn, xcb_get_property(conn, 1, window, property, XCB_GET_PROPERTY_TYPE_ANY, 0, units), nullptr));
        if (reply && reply->type != incr && reply->format == 8) {
            const auto* data = static_cast<const char*>(xcb_get_property_value(reply.get()));
            const int length = xcb_get_property_value_length(reply.get());
            result.emplace(data, static_cast<size_t>(std::max(length, 0)));
            if (result->size() > requestLimit) {
                result->resize(requestLimit);
            }
        } else if (reply && reply->type == incr) {
            Syslog::info("%s: clipboard text too large for one transfer, not taken", "XClipboard::received");
        }
    }
    if (onText) {
        onText(std::move(result));
    }
}

} // namespace Vexa::Rdp
