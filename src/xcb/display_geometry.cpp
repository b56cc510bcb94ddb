#include "display_geometry.h"

#include <algorithm>
#include <string>
#include <vector>

#include "common/logger.h"

namespace Vexa::Xcb {

namespace {

constexpr const char* self = "applyLayout";
constexpr int refreshRate = 60;

struct Target {
    xcb_randr_output_t output = XCB_NONE;
    xcb_randr_crtc_t crtc = XCB_NONE;
    xcb_randr_mode_t mode = XCB_NONE;
    OutputInfo info; // as picked: its modes tell whether the mode must be added
};

// A mode of exactly that size among the screen's, or a new one; XCB_NONE when it could not be made.
xcb_randr_mode_t findOrCreateMode(const Connector& connector, const ScreenResources& resources, uint16_t width,
                                  uint16_t height) {
    const auto* const modes = xcb_randr_get_screen_resources_current_modes(resources.get());
    const int count = xcb_randr_get_screen_resources_current_modes_length(resources.get());
    const auto* const found = std::find_if(modes, modes + count, [&](const xcb_randr_mode_info_t& mode) {
        return mode.width == width && mode.height == height && !(mode.mode_flags & XCB_RANDR_MODE_FLAG_INTERLACE);
    });
    if (found != modes + count) {
        return found->id;
    }
    try {
        return connector.cvtCreateMode(width, height, refreshRate);
    } catch (const xcb_error&) {
        return XCB_NONE; // cvtCreateMode has logged why
    }
}

// The outputs that can show something, connected ones first, each with a CRTC of its own (its current one, else
// the first free one it may use); at most `wanted`.
std::vector<Target> pickOutputs(const Connector& connector, const ScreenResources& resources, size_t wanted) {
    const auto* const outputs = xcb_randr_get_screen_resources_current_outputs(resources.get());
    const int count = xcb_randr_get_screen_resources_current_outputs_length(resources.get());
    std::vector<std::pair<xcb_randr_output_t, OutputInfo>> infos;
    for (int i = 0; i < count; ++i) {
        if (auto info = connector.randrOutputInfo(outputs[i], resources->config_timestamp);
            info && xcb_randr_get_output_info_crtcs_length(info.get()) > 0) {
            infos.emplace_back(outputs[i], std::move(info));
        }
    }
    std::stable_partition(infos.begin(), infos.end(),
                          [](const auto& entry) { return entry.second->connection == XCB_RANDR_CONNECTION_CONNECTED; });

    std::vector<Target> targets;
    std::vector<xcb_randr_crtc_t> taken;
    for (const auto& [output, info] : infos) {
        if (targets.size() == wanted) {
            break;
        }
        xcb_randr_crtc_t crtc = info->crtc;
        if (crtc == XCB_NONE || std::find(taken.begin(), taken.end(), crtc) != taken.end()) {
            const auto* const crtcs = xcb_randr_get_output_info_crtcs(info.get());
            const int possible = xcb_randr_get_output_info_crtcs_length(info.get());
            const auto* const free = std::find_if(crtcs, crtcs + possible, [&](xcb_randr_crtc_t c) {
                return std::find(taken.begin(), taken.end(), c) == taken.end();
            });
            crtc = free == crtcs + possible ? XCB_NONE : *free;
        }
        if (crtc != XCB_NONE) {
            taken.push_back(crtc);
            targets.push_back(Target{output, crtc, XCB_NONE, info});
        }
    }
    return targets;
}

bool outputHasMode(const OutputInfo& info, xcb_randr_mode_t mode) {
    const auto* const modes = xcb_randr_get_output_info_modes(info.get());
    return std::find(modes, modes + xcb_randr_get_output_info_modes_length(info.get()), mode) !=
           modes + xcb_randr_get_output_info_modes_length(info.get());
}

// The screen cannot shrink under a CRTC that reaches beyond the new size, and CRTCs of no monitor go dark.
bool releaseCrtcs(const Connector& connector, const ScreenResources& resources, const std::vector<Target>& targets,
                  const Layout& layout) {
    const auto* const crtcs = xcb_randr_get_screen_resources_current_crtcs(resources.get());
    for (int i = 0; i < xcb_randr_get_screen_resources_current_crtcs_length(resources.get()); ++i) {
        const auto info = connector.randrCrtcInfo(crtcs[i], resources->config_timestamp);
        if (!info || info->mode == XCB_NONE) {
            continue;
        }
        const bool used =
            std::any_of(targets.begin(), targets.end(), [&](const Target& t) { return t.crtc == crtcs[i]; });
        const bool beyond = info->x + info->width > layout.width || info->y + info->height > layout.height;
        if ((!used || beyond) && !connector.randrCrtcDisconnect(crtcs[i], resources->config_timestamp)) {
            return false;
        }
    }
    return true;
}

// One output's picture spans the screen; the monitors split it. The primary one takes the output, so that the
// output's own monitor does not stand beside them.
bool defineMonitors(const Connector& connector, const Layout& layout, xcb_randr_output_t output) {
    for (size_t i = 0; i < layout.monitors.size(); ++i) {
        const auto& m = layout.monitors[i];
        const auto name = connector.getAtom("VEXA-" + std::to_string(i), false);
        const MonitorInfo monitor{name, m.primary, false, Rect{m.x, m.y, m.width, m.height}};
        const auto outputs = m.primary ? std::vector<xcb_randr_output_t>{output} : std::vector<xcb_randr_output_t>{};
        if (name == XCB_ATOM_NONE ||
            !connector.randrSetMonitor(monitor, m.mmWidth ? m.mmWidth : millimetres(m.width),
                                       m.mmHeight ? m.mmHeight : millimetres(m.height), outputs)) {
            return false;
        }
    }
    return true;
}

} // namespace

std::optional<std::pair<uint16_t, uint16_t>> screenSize(const Connector& connector) {
    const auto root = connector.getWindowGeometry(connector.windowRoot(), false);
    if (!root) {
        return std::nullopt;
    }
    return std::make_pair(root->width, root->height);
}

bool applyLayout(const Connector& connector, const Layout& layout) {
    const auto range = connector.getScreenSizes();
    const auto resources = connector.randrCurrentScreenResources();
    if (!range || !resources) {
        return false;
    }
    if (layout.width < range->minWidth || layout.height < range->minHeight || layout.width > range->maxWidth ||
        layout.height > range->maxHeight) {
        Syslog::error("%s: screen size out of range, size: %ux%u, max: %ux%u", self, layout.width, layout.height,
                      range->maxWidth, range->maxHeight);
        return false;
    }
    const auto stamp = resources->config_timestamp;

    // Monitors defined by an earlier layout would outlive this one.
    for (const auto& monitor : connector.randrMonitors()) {
        if (!monitor.automatic && !connector.randrDeleteMonitor(monitor.name)) {
            return false;
        }
    }

    // One output per monitor where the server has enough, else the first shows the whole screen.
    auto targets = pickOutputs(connector, resources, layout.monitors.size());
    const bool perOutput = targets.size() == layout.monitors.size();
    if (targets.empty()) {
        Syslog::error("%s: no output with a CRTC", self);
        return false;
    }
    if (!perOutput) {
        targets.resize(1);
    }
    for (size_t i = 0; i < targets.size(); ++i) {
        const uint16_t width = perOutput ? layout.monitors[i].width : layout.width;
        const uint16_t height = perOutput ? layout.monitors[i].height : layout.height;
        targets[i].mode = findOrCreateMode(connector, resources, width, height);
        if (targets[i].mode == XCB_NONE || (!outputHasMode(targets[i].info, targets[i].mode) &&
                                            !connector.randrOutputModeAdd(targets[i].output, targets[i].mode))) {
            return false;
        }
    }

    if (!releaseCrtcs(connector, resources, targets, layout)) {
        return false;
    }

    if (!connector.randrSetScreenSize(layout.width, layout.height)) {
        return false;
    }
    for (size_t i = 0; i < targets.size(); ++i) {
        const int16_t x = perOutput ? layout.monitors[i].x : int16_t{0};
        const int16_t y = perOutput ? layout.monitors[i].y : int16_t{0};
        if (!connector.randrCrtcConnectToOutputMode(targets[i].crtc, x, y, targets[i].output, targets[i].mode, stamp)) {
            return false;
        }
    }
    const auto primary =
        std::find_if(layout.monitors.begin(), layout.monitors.end(), [](const Monitor& m) { return m.primary; });
    const size_t primaryIndex = primary == layout.monitors.end() ? 0 : size_t(primary - layout.monitors.begin());
    if (!connector.randrSetOutputPrimary(targets[perOutput ? primaryIndex : 0].output)) {
        return false;
    }

    if (!perOutput && layout.monitors.size() > 1 && !defineMonitors(connector, layout, targets.front().output)) {
        return false;
    }

    const auto size = screenSize(connector);
    if (!size || size->first != layout.width || size->second != layout.height) {
        Syslog::error("%s: screen size not changed, wanted: %ux%u", self, layout.width, layout.height);
        return false;
    }
    return true;
}

} // namespace Vexa::Xcb
