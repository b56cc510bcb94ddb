#include "layout.h"

#include <algorithm>
#include <limits>

namespace Vexa::Xcb {

namespace {

// Physical sizes beyond ten metres are a client's mistake, not a monitor: the screen's resolution gives them.
uint32_t physical(uint32_t mm) {
    return mm <= 10000 ? mm : 0;
}

} // namespace

std::variant<Layout, std::string> layoutMonitors(const std::vector<MonitorRequest>& monitors) {
    if (monitors.empty() || monitors.size() > maxMonitors) {
        return "monitors count: " + std::to_string(monitors.size());
    }
    int64_t left = std::numeric_limits<int64_t>::max(), top = left;
    int64_t right = std::numeric_limits<int64_t>::min(), bottom = right;
    size_t primaries = 0;
    for (size_t i = 0; i < monitors.size(); ++i) {
        const auto& m = monitors[i];
        const auto index = "monitor " + std::to_string(i) + ": ";
        if (m.width < minMonitorSide || m.width > maxMonitorSide || m.height < minMonitorSide ||
            m.height > maxMonitorSide) {
            return index + "size " + std::to_string(m.width) + "x" + std::to_string(m.height);
        }
        if (m.orientation % 90 != 0 || m.orientation > 270) {
            return index + "orientation " + std::to_string(m.orientation);
        }
        primaries += (m.flags & monitorPrimaryFlag) ? 1 : 0;
        left = std::min<int64_t>(left, m.left);
        top = std::min<int64_t>(top, m.top);
        right = std::max<int64_t>(right, int64_t{m.left} + m.width);
        bottom = std::max<int64_t>(bottom, int64_t{m.top} + m.height);
    }
    if (primaries > 1) {
        return "primary monitors: " + std::to_string(primaries);
    }
    if (right - left > maxScreenSide || bottom - top > maxScreenSide) {
        return "screen size " + std::to_string(right - left) + "x" + std::to_string(bottom - top);
    }

    Layout layout;
    layout.width = static_cast<uint16_t>(right - left);
    layout.height = static_cast<uint16_t>(bottom - top);
    for (const auto& m : monitors) {
        layout.monitors.push_back(Monitor{static_cast<int16_t>(m.left - left), static_cast<int16_t>(m.top - top),
                                          static_cast<uint16_t>(m.width), static_cast<uint16_t>(m.height),
                                          physical(m.physicalWidth), physical(m.physicalHeight),
                                          (m.flags & monitorPrimaryFlag) != 0});
    }
    if (primaries == 0) {
        const auto origin = std::find_if(monitors.begin(), monitors.end(),
                                         [](const MonitorRequest& m) { return m.left == 0 && m.top == 0; });
        layout.monitors[origin == monitors.end() ? 0 : static_cast<size_t>(origin - monitors.begin())].primary = true;
    }
    return layout;
}

std::variant<Layout, std::string> screenLayout(uint32_t width, uint32_t height) {
    return layoutMonitors({MonitorRequest{monitorPrimaryFlag, 0, 0, width, height}});
}

} // namespace Vexa::Xcb
