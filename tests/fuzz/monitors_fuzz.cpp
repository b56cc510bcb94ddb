// Hostile monitor layouts: the array a transport sends with vexaTransportDisplayMonitorsChanged (ten 32-bit fields per
// monitor) must never crash or overflow, and every layout accepted must fit on one X screen: each monitor inside the
// screen, the screen within 16-bit coordinates, exactly one primary.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <variant>
#include <vector>

#include "xcb/layout.h"

using namespace Vexa::Xcb;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t record = 10 * sizeof(uint32_t);
    std::vector<MonitorRequest> monitors;
    for (size_t at = 0; at + record <= size; at += record) {
        uint32_t f[10];
        std::memcpy(f, data + at, record);
        monitors.push_back(MonitorRequest{f[0], static_cast<int32_t>(f[1]), static_cast<int32_t>(f[2]), f[3], f[4],
                                          f[5], f[6], f[7], f[8], f[9]});
    }
    const auto result = layoutMonitors(monitors);
    if (const auto* layout = std::get_if<Layout>(&result)) {
        size_t primaries = 0;
        if (layout->monitors.size() != monitors.size() || layout->width > maxScreenSide ||
            layout->height > maxScreenSide) {
            std::abort();
        }
        for (const auto& m : layout->monitors) {
            primaries += m.primary ? 1 : 0;
            if (m.x < 0 || m.y < 0 || m.x + m.width > layout->width || m.y + m.height > layout->height ||
                m.width < minMonitorSide || m.height < minMonitorSide) {
                std::abort();
            }
        }
        if (primaries != 1) {
            std::abort();
        }
    }
    return 0;
}
