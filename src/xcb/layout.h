#pragma once

// The screen a client's monitors ask for: each monitor's place on one X screen sized to their bounding box.
// Pure arithmetic, no X.

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace Vexa::Xcb {

// One monitor as an RDP client describes it (display control layout): flags (bit 0: primary), the top left corner
// in the client's desktop (may be negative), the size in pixels, the physical size in millimetres, orientation in
// degrees and the two scale factors (percent).
struct MonitorRequest {
    uint32_t flags = 0;
    int32_t left = 0, top = 0;
    uint32_t width = 0, height = 0;
    uint32_t physicalWidth = 0, physicalHeight = 0;
    uint32_t orientation = 0;
    uint32_t desktopScale = 0, deviceScale = 0;
};

inline constexpr uint32_t monitorPrimaryFlag = 0x1;
inline constexpr size_t maxMonitors = 16;
inline constexpr uint32_t minMonitorSide = 64;
inline constexpr uint32_t maxMonitorSide = 8192;
// The X protocol's coordinates are signed 16-bit: the screen's far edge must stay below it.
inline constexpr uint32_t maxScreenSide = 32767;

struct Monitor {
    int16_t x = 0, y = 0;
    uint16_t width = 0, height = 0;
    uint32_t mmWidth = 0, mmHeight = 0; // 0: unknown, the screen's resolution gives it
    bool primary = false;
};

// The screen's size and its monitors, moved so that the bounding box starts at 0,0; exactly one is primary (the
// flagged one, else the one at the client's origin, else the first).
struct Layout {
    uint16_t width = 0, height = 0;
    std::vector<Monitor> monitors;
};

// The layout, or the reason the monitors were refused: none or more than maxMonitors, a side outside
// minMonitorSide..maxMonitorSide, an orientation other than 0, 90, 180, 270, more than one primary, or a bounding
// box beyond maxScreenSide.
std::variant<Layout, std::string> layoutMonitors(const std::vector<MonitorRequest>& monitors);

// Millimetres of that many pixels at 96 dots per inch, the resolution the screens are given.
inline uint32_t millimetres(uint32_t pixels) {
    return pixels * 254U / 960U;
}

// One monitor filling a screen of that size, under the rules of layoutMonitors.
std::variant<Layout, std::string> screenLayout(uint32_t width, uint32_t height);

} // namespace Vexa::Xcb
