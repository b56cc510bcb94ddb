#include "rdp/x_display.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

#include <xcb/damage.h>
#include <xcb/randr.h>
#include <xcb/shm.h>
#include <xcb/xfixes.h>
#include <xcb/xtest.h>

#include "common/logger.h"
#include "common/utils.h"

namespace Vexa::Rdp {

namespace {

template <typename T>
using Reply = std::unique_ptr<T, decltype(&std::free)>;

template <typename T>
Reply<T> own(T* reply) {
    return Reply<T>(reply, &std::free);
}

const xcb_query_extension_reply_t* extension(xcb_connection_t* conn, xcb_extension_t* ext, const char* name) {
    const auto* reply = xcb_get_extension_data(conn, ext);
    if (!reply || !reply->present) {
        throw std::runtime_error(std::string("X extension missing: ") + name);
    }
    return reply;
}

} // namespace

XDisplay::XDisplay(uint32_t display, const std::vector<uint8_t>& cookie) {
    const std::string addr = ":" + std::to_string(display);
    std::string name = "MIT-MAGIC-COOKIE-1";
    std::vector<uint8_t> data = cookie;
    xcb_auth_info_t auth{static_cast<int>(name.size()), name.data(), static_cast<int>(data.size()),
                         reinterpret_cast<char*>(data.data())};
    int screenNum = 0;
    conn = cookie.empty() ? xcb_connect(addr.c_str(), &screenNum)
                          : xcb_connect_to_display_with_auth_info(addr.c_str(), &auth, &screenNum);
    if (xcb_connection_has_error(conn)) {
        xcb_disconnect(conn);
        conn = nullptr;
        throw std::runtime_error("cannot connect to the X display " + addr);
    }
    const xcb_setup_t* setup = xcb_get_setup(conn);
    auto screens = xcb_setup_roots_iterator(setup);
    for (int i = 0; i < screenNum && screens.rem; ++i) {
        xcb_screen_next(&screens);
    }
    if (!screens.rem) {
        throw std::runtime_error("no screen on the X display " + addr);
    }
    const xcb_screen_t* screen = screens.data;
    root = screen->root;
    width_ = screen->width_in_pixels;
    height_ = screen->height_in_pixels;
    if (screen->root_depth != 24) {
        throw std::runtime_error("X display depth " + std::to_string(screen->root_depth) + " not served (24 only)");
    }

    extension(conn, &xcb_shm_id, "MIT-SHM");
    extension(conn, &xcb_test_id, "XTEST");
    xfixesEvent = extension(conn, &xcb_xfixes_id, "XFIXES")->first_event;
    damageEvent = extension(conn, &xcb_damage_id, "DAMAGE")->first_event;
    randrEvent = extension(conn, &xcb_randr_id, "RANDR")->first_event;
    // The versions must be asked before the extensions' requests are used.
    own(xcb_xfixes_query_version_reply(conn, xcb_xfixes_query_version(conn, 5, 0), nullptr));
    own(xcb_damage_query_version_reply(conn, xcb_damage_query_version(conn, 1, 1), nullptr));
    auto shmVersion = own(xcb_shm_query_version_reply(conn, xcb_shm_query_version(conn), nullptr));
    if (!shmVersion || shmVersion->major_version < 1 ||
        (shmVersion->major_version == 1 && shmVersion->minor_version < 2)) {
        throw std::runtime_error("MIT-SHM 1.2 (descriptor passing) missing");
    }
    own(xcb_randr_query_version_reply(conn, xcb_randr_query_version(conn, 1, 5), nullptr));

    damage = xcb_generate_id(conn);
    xcb_damage_create(conn, damage, root, XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY);
    region = xcb_generate_id(conn);
    xcb_xfixes_create_region(conn, region, 0, nullptr);
    xcb_xfixes_select_cursor_input(conn, root, XCB_XFIXES_CURSOR_NOTIFY_MASK_DISPLAY_CURSOR);
    xcb_randr_select_input(conn, root, XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE);
    mapFrame();
    xcb_flush(conn);
}

XDisplay::~XDisplay() {
    if (conn) {
        unmapFrame();
        xcb_disconnect(conn);
    }
}

int XDisplay::fd() const noexcept {
    return xcb_get_file_descriptor(conn);
}

void XDisplay::mapFrame() {
    frameSize = size_t{width_} * height_ * 4;
    const int memfd = memfd_create("vexa-rdp-frame", MFD_CLOEXEC);
    if (memfd < 0) {
        throw std::runtime_error(std::string("memfd_create failed: ") + Utils::errnoText(errno));
    }
    if (ftruncate(memfd, static_cast<off_t>(frameSize)) != 0) {
        close(memfd);
        throw std::runtime_error(std::string("ftruncate failed: ") + Utils::errnoText(errno));
    }
    void* addr = mmap(nullptr, frameSize, PROT_READ | PROT_WRITE, MAP_SHARED, memfd, 0);
    if (addr == MAP_FAILED) {
        close(memfd);
        throw std::runtime_error(std::string("mmap failed: ") + Utils::errnoText(errno));
    }
    frame_ = static_cast<uint8_t*>(addr);
    shmSeg = xcb_generate_id(conn);
    // The library sends the descriptor to the server and closes it.
    auto error = own(xcb_request_check(conn, xcb_shm_attach_fd_checked(conn, shmSeg, memfd, 0)));
    if (error) {
        throw std::runtime_error("MIT-SHM attach refused, error code " + std::to_string(error->error_code));
    }
}

void XDisplay::unmapFrame() {
    if (frame_) {
        xcb_shm_detach(conn, shmSeg);
        munmap(frame_, frameSize);
        frame_ = nullptr;
    }
}

XDisplay::Events XDisplay::dispatch() {
    Events events;
    bool damaged = false;
    while (auto* raw = xcb_poll_for_event(conn)) {
        auto event = own(raw);
        const uint8_t type = event->response_type & 0x7f;
        if (type == 0) {
            const auto* err = reinterpret_cast<const xcb_generic_error_t*>(event.get());
            Syslog::debug("%s: X error: %u, major: %u, minor: %u", "XDisplay::dispatch", err->error_code,
                          err->major_code, err->minor_code);
        } else if (type == damageEvent + XCB_DAMAGE_NOTIFY) {
            damaged = true;
        } else if (type == xfixesEvent + XCB_XFIXES_CURSOR_NOTIFY) {
            events.cursorChanged = true;
        } else if (otherEvents && otherEvents(event.get())) {
            continue;
        } else if (type == randrEvent + XCB_RANDR_SCREEN_CHANGE_NOTIFY) {
            const auto* change = reinterpret_cast<const xcb_randr_screen_change_notify_event_t*>(event.get());
            const bool rotated = change->rotation & (XCB_RANDR_ROTATION_ROTATE_90 | XCB_RANDR_ROTATION_ROTATE_270);
            const uint16_t w = rotated ? change->height : change->width;
            const uint16_t h = rotated ? change->width : change->height;
            if (w != width_ || h != height_) {
                events.screenResized = true;
                unmapFrame();
                width_ = w;
                height_ = h;
                mapFrame();
            }
        }
    }
    if (xcb_connection_has_error(conn)) {
        events.broken = true;
        return events;
    }
    if (damaged) {
        // Take what was damaged so far and start a new round: the next change reports again.
        xcb_damage_subtract(conn, damage, XCB_NONE, region);
        auto reply = own(xcb_xfixes_fetch_region_reply(conn, xcb_xfixes_fetch_region(conn, region), nullptr));
        if (reply) {
            const xcb_rectangle_t* rects = xcb_xfixes_fetch_region_rectangles(reply.get());
            const int count = xcb_xfixes_fetch_region_rectangles_length(reply.get());
            for (int i = 0; i < count; ++i) {
                events.damage.push_back({rects[i].x, rects[i].y, rects[i].width, rects[i].height});
            }
        }
    }
    if (events.screenResized) {
        events.damage.push_back({0, 0, width_, height_});
    }
    return events;
}

bool XDisplay::capture(const std::vector<Band>& bands) {
    for (const auto& band : bands) {
        const Rect rows = intersect({0, band.y, width_, band.height}, {0, 0, width_, height_});
        if (rows.empty()) {
            continue;
        }
        const auto offset = static_cast<uint32_t>(rows.y) * stride();
        auto reply = own(xcb_shm_get_image_reply(conn,
                                                 xcb_shm_get_image(conn, root, 0, static_cast<int16_t>(rows.y), width_,
                                                                   static_cast<uint16_t>(rows.height), ~0u,
                                                                   XCB_IMAGE_FORMAT_Z_PIXMAP, shmSeg, offset),
                                                 nullptr));
        if (!reply) {
            return false;
        }
    }
    return true;
}

std::optional<CursorImage> XDisplay::cursorImage() {
    auto reply = own(xcb_xfixes_get_cursor_image_reply(conn, xcb_xfixes_get_cursor_image(conn), nullptr));
    if (!reply) {
        return std::nullopt;
    }
    CursorImage image;
    image.width = reply->width;
    image.height = reply->height;
    image.xhot = reply->xhot;
    image.yhot = reply->yhot;
    image.serial = reply->cursor_serial;
    const uint32_t* pixels = xcb_xfixes_get_cursor_image_cursor_image(reply.get());
    const int length = xcb_xfixes_get_cursor_image_cursor_image_length(reply.get());
    if (length < int{image.width} * image.height) {
        return std::nullopt;
    }
    image.pixels.assign(pixels, pixels + length);
    return image;
}

uint16_t XDisplay::modifierState() {
    auto reply = own(xcb_query_pointer_reply(conn, xcb_query_pointer(conn, root), nullptr));
    return reply ? reply->mask : 0;
}

void XDisplay::fakeMotion(uint16_t x, uint16_t y) {
    xcb_test_fake_input(conn, XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, root, static_cast<int16_t>(x),
                        static_cast<int16_t>(y), 0);
}

void XDisplay::fakeButton(uint8_t button, bool press) {
    xcb_test_fake_input(conn, press ? XCB_BUTTON_PRESS : XCB_BUTTON_RELEASE, button, XCB_CURRENT_TIME, XCB_NONE, 0, 0,
                        0);
}

void XDisplay::fakeKey(uint8_t keycode, bool press) {
    xcb_test_fake_input(conn, press ? XCB_KEY_PRESS : XCB_KEY_RELEASE, keycode, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
}

std::bitset<256> XDisplay::boundKeycodes() {
    std::bitset<256> bound;
    const xcb_setup_t* setup = xcb_get_setup(conn);
    const uint8_t first = setup->min_keycode;
    const auto count = static_cast<uint8_t>(setup->max_keycode - setup->min_keycode + 1);
    auto map = own(xcb_get_keyboard_mapping_reply(conn, xcb_get_keyboard_mapping(conn, first, count), nullptr));
    if (!map || map->keysyms_per_keycode == 0) {
        return bound;
    }
    const xcb_keysym_t* syms = xcb_get_keyboard_mapping_keysyms(map.get());
    for (unsigned i = 0; i < count; ++i) {
        bound[first + i] = syms[static_cast<size_t>(i) * map->keysyms_per_keycode] != 0;
    }
    return bound;
}

bool XDisplay::typeKeysym(uint32_t keysym) {
    if (spareKeycode == 0) {
        spareKeycode = 255;
        const xcb_setup_t* setup = xcb_get_setup(conn);
        const uint8_t first = setup->min_keycode;
        const auto count = static_cast<uint8_t>(setup->max_keycode - setup->min_keycode + 1);
        auto map = own(xcb_get_keyboard_mapping_reply(conn, xcb_get_keyboard_mapping(conn, first, count), nullptr));
        if (map && map->keysyms_per_keycode > 0) {
            keysymsPerKeycode = map->keysyms_per_keycode;
            const xcb_keysym_t* syms = xcb_get_keyboard_mapping_keysyms(map.get());
            // From the top: the keycodes above the keyboard's own are the usual empty ones.
            for (int code = first + count - 1; code >= first; --code) {
                const xcb_keysym_t* row = syms + static_cast<size_t>(code - first) * keysymsPerKeycode;
                if (std::all_of(row, row + keysymsPerKeycode, [](xcb_keysym_t k) { return k == 0; })) {
                    spareKeycode = static_cast<uint8_t>(code);
                    break;
                }
            }
        }
    }
    if (spareKeycode == 255 || keysymsPerKeycode == 0) {
        return false;
    }
    // The same keysym with and without Shift; X clients read the new map from the MappingNotify that reaches
    // them before the key events.
    std::vector<xcb_keysym_t> row(keysymsPerKeycode, 0);
    row[0] = keysym;
    if (row.size() > 1) {
        row[1] = keysym;
    }
    xcb_change_keyboard_mapping(conn, 1, spareKeycode, keysymsPerKeycode, row.data());
    fakeKey(spareKeycode, true);
    fakeKey(spareKeycode, false);
    xcb_flush(conn);
    return true;
}

void XDisplay::flush() {
    xcb_flush(conn);
}

} // namespace Vexa::Rdp
