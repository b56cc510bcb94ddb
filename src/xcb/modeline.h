#pragma once

// Display modes for sizes the X server does not know: the timing comes from the system's mode-line tool (cvt),
// never from a computation of our own.

#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>

namespace Vexa::Xcb {

inline constexpr const char* cvtProgram = "/usr/bin/cvt";
// Pixel clocks above this (MHz) are refused by many servers and drivers: the refresh rate is lowered instead.
inline constexpr double maxPixelClockMHz = 300.0;

struct ModeLine {
    std::string name; // as the tool gives it, without its double quotes
    double clockMHz = 0;
    uint16_t hdisplay = 0, hsyncStart = 0, hsyncEnd = 0, htotal = 0;
    uint16_t vdisplay = 0, vsyncStart = 0, vsyncEnd = 0, vtotal = 0;
    bool hsyncPositive = false, vsyncPositive = false;
    std::string text; // the line from "Modeline" on, for the log
};

// The mode line in the tool's output: the line that holds "Modeline", read as whitespace-separated tokens (name,
// clock, eight timings, two polarities). Nullopt when it is missing or malformed.
std::optional<ModeLine> parseModeLine(std::string_view output);

// The next refresh rate to try when the clock is too high: one less at 9 Hz and below, five less above.
int lowerRefresh(int refresh);

// Runs the tool (`run` gets its arguments: width, height, refresh) until the clock fits, lowering the refresh rate.
// The mode's width is the requested one even where the tool rounds it up to a multiple of 8 (its name then says
// the requested width too): a mode wider than the screen could not be shown on it. Nullopt (logged) when the
// rate reaches 0 or the tool's output has no mode line.
using CvtRunner = std::function<std::string(const std::list<std::string>& args)>;
std::optional<ModeLine> cvtModeLine(uint16_t width, uint16_t height, int refresh, const CvtRunner& run);

} // namespace Vexa::Xcb
