#pragma once

// The transport's own connection to the session's X server: the frame buffer read through MIT-SHM, changes
// reported by DAMAGE, the cursor image from XFIXES, screen size changes from RandR, and input faked through
// XTEST. Bound to one thread (the event loop's). The constructor throws std::runtime_error.

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include <xcb/xcb.h>

#include "rdp/damage_region.h"

namespace Vexa::Rdp {

struct CursorImage {
    uint16_t width = 0, height = 0, xhot = 0, yhot = 0;
    uint32_t serial = 0;
    // Premultiplied ARGB, one 32-bit word a pixel, top row first.
    std::vector<uint32_t> pixels;
};

class XDisplay {
public:
    XDisplay(uint32_t display, const std::vector<uint8_t>& cookie);
    ~XDisplay();
    XDisplay(const XDisplay&) = delete;
    XDisplay& operator=(const XDisplay&) = delete;

    int fd() const noexcept;
    uint16_t width() const noexcept { return width_; }
    uint16_t height() const noexcept { return height_; }

    struct Events {
        std::vector<Rect> damage;
        bool cursorChanged = false;
        bool screenResized = false;
        // The connection is gone: the X server stopped.
        bool broken = false;
    };
    // Reads every event queued on the connection.
    Events dispatch();

    // Copies the rows of the bands from the screen into the frame buffer; false when the server refused.
    bool capture(const std::vector<Band>& bands);
    // The frame buffer: BGRX, 4 bytes a pixel, rows of stride() bytes.
    const uint8_t* frame() const noexcept { return frame_; }
    uint32_t stride() const noexcept { return uint32_t{width_} * 4; }

    std::optional<CursorImage> cursorImage();

    xcb_connection_t* connection() const noexcept { return conn; }
    xcb_window_t rootWindow() const noexcept { return root; }
    uint8_t xfixesFirstEvent() const noexcept { return xfixesEvent; }
    // Events this class does not handle itself go here (the clipboard's); true when taken.
    std::function<bool(const xcb_generic_event_t*)> otherEvents;

    // The pointer's modifier and button mask (XCB_MOD_MASK_*), 0 when the server does not answer.
    uint16_t modifierState();

    void fakeMotion(uint16_t x, uint16_t y);
    void fakeButton(uint8_t button, bool press);
    void fakeKey(uint8_t keycode, bool press);
    // The keycodes the server's keyboard map gives a keysym at their first level.
    std::bitset<256> boundKeycodes();
    // Types one keysym through a keycode the keyboard map leaves empty, mapped to it for the purpose; false when
    // the map has no empty keycode.
    bool typeKeysym(uint32_t keysym);
    void flush();

private:
    void mapFrame();
    void unmapFrame();

    xcb_connection_t* conn = nullptr;
    xcb_window_t root = XCB_NONE;
    uint16_t width_ = 0, height_ = 0;
    uint8_t damageEvent = 0, xfixesEvent = 0, randrEvent = 0;
    uint32_t damage = 0, region = 0, shmSeg = 0;
    // The empty keycode typeKeysym maps (0: not looked for yet, 255 too: none found) and the map's width.
    uint8_t spareKeycode = 0;
    uint8_t keysymsPerKeycode = 0;
    uint8_t* frame_ = nullptr;
    size_t frameSize = 0;
};

} // namespace Vexa::Rdp
