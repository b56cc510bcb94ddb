#pragma once

// Brings a session's X screen to a layout through RandR: the screen sized to the layout, one output (and its CRTC)
// per monitor showing a mode of the monitor's size at the monitor's place, the primary output set. A server with
// fewer outputs than monitors (Xvfb has one) shows the whole screen on its first output and gets the monitors as
// RandR monitors instead. Modes the server lacks are created from cvt's timings and stay for later use.

#include <cstdint>
#include <optional>
#include <utility>

#include "connector.h"
#include "layout.h"

namespace Vexa::Xcb {

// The root window's size as the server reports it now; nullopt (logged) when it cannot be asked.
std::optional<std::pair<uint16_t, uint16_t>> screenSize(const Connector& connector);

// Applies the layout and waits until the server reports the new screen size (a round trip after the last change:
// the server handles requests in order). False (logged) when the server refused a step or reports another size;
// the layout may then be partly applied.
bool applyLayout(const Connector& connector, const Layout& layout);

} // namespace Vexa::Xcb
