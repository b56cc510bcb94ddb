#pragma once

// What a client's monitor layout (display control channel) asks of the session's display. Pure, any thread.

#include <cstdint>
#include <string>
#include <vector>

namespace Vexa::Rdp {

// One monitor as the display control channel gives it, in the order of vexaTransportDisplayMonitorsChanged's
// (uiiuuuuuuu) structure.
struct Monitor {
    uint32_t flags = 0;
    int32_t left = 0, top = 0;
    uint32_t width = 0, height = 0;
    uint32_t physicalWidth = 0, physicalHeight = 0;
    uint32_t orientation = 0;
    uint32_t desktopScale = 0, deviceScale = 0;
};

struct LayoutRequest {
    enum Kind { Ignore, Resize, Monitors } kind = Ignore;
    // Resize: the screen's new size.
    uint16_t width = 0, height = 0;
    // Monitors: the layout to hand to the service as it came.
    std::vector<Monitor> monitors;
    // Ignore: why.
    std::string reason;
};

// One monitor: a resize to its size, unless the display already has it. Several: the layout for the service
// to arrange. Sizes outside 200..8192 pixels, more than 16 monitors or none are ignored.
LayoutRequest layoutRequest(const std::vector<Monitor>& monitors, uint16_t currentWidth, uint16_t currentHeight);

} // namespace Vexa::Rdp
