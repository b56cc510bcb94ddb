#include "rdp/monitor_layout.h"

namespace Vexa::Rdp {

namespace {

constexpr uint32_t minSide = 200;
constexpr uint32_t maxSide = 8192;
constexpr size_t maxMonitors = 16;

} // namespace

LayoutRequest layoutRequest(const std::vector<Monitor>& monitors, uint16_t currentWidth, uint16_t currentHeight) {
    LayoutRequest request;
    if (monitors.empty()) {
        request.reason = "no monitor";
        return request;
    }
    if (monitors.size() > maxMonitors) {
        request.reason = "more than 16 monitors";
        return request;
    }
    for (const auto& m : monitors) {
        if (m.width < minSide || m.width > maxSide || m.height < minSide || m.height > maxSide) {
            request.reason =
                "monitor size " + std::to_string(m.width) + "x" + std::to_string(m.height) + " outside 200..8192";
            return request;
        }
    }
    if (monitors.size() > 1) {
        request.kind = LayoutRequest::Monitors;
        request.monitors = monitors;
        return request;
    }
    if (monitors[0].width == currentWidth && monitors[0].height == currentHeight) {
        request.reason = "size unchanged";
        return request;
    }
    request.kind = LayoutRequest::Resize;
    request.width = static_cast<uint16_t>(monitors[0].width);
    request.height = static_cast<uint16_t>(monitors[0].height);
    return request;
}

} // namespace Vexa::Rdp
