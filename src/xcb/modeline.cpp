#include "modeline.h"

#include <charconv>
#include <sstream>
#include <vector>

#include "common/logger.h"

namespace Vexa::Xcb {

namespace {

template <typename T>
bool parseNumber(const std::string& token, T& value) {
    const auto* const end = token.data() + token.size();
    const auto [ptr, ec] = std::from_chars(token.data(), end, value);
    return ec == std::errc() && ptr == end;
}

bool parsePolarity(const std::string& token, char axis, bool& positive) {
    if (token.size() != 6 || (token[0] != '+' && token[0] != '-') ||
        token.compare(1, 5, std::string(1, axis) + "sync")) {
        return false;
    }
    positive = token[0] == '+';
    return true;
}

} // namespace

std::optional<ModeLine> parseModeLine(std::string_view output) {
    const auto start = output.find("Modeline");
    if (start == std::string_view::npos) {
        return std::nullopt;
    }
    const auto end = output.find('\n', start);
    ModeLine line;
    line.text = std::string(output.substr(start, end == std::string_view::npos ? end : end - start));

    std::istringstream in(line.text);
    std::vector<std::string> tokens;
    for (std::string token; in >> token;) {
        tokens.push_back(std::move(token));
    }
    // "Modeline", the name, the clock, eight timings, two polarities.
    if (tokens.size() != 13) {
        return std::nullopt;
    }
    line.name = tokens[1];
    if (line.name.size() >= 2 && line.name.front() == '"' && line.name.back() == '"') {
        line.name = line.name.substr(1, line.name.size() - 2);
    }
    uint16_t* const timings[] = {&line.hdisplay, &line.hsyncStart, &line.hsyncEnd, &line.htotal,
                                 &line.vdisplay, &line.vsyncStart, &line.vsyncEnd, &line.vtotal};
    std::istringstream clock(tokens[2]);
    clock.imbue(std::locale::classic());
    if (line.name.empty() || !(clock >> line.clockMHz) || !clock.eof() || !(line.clockMHz > 0)) {
        return std::nullopt;
    }
    for (size_t i = 0; i < 8; ++i) {
        if (!parseNumber(tokens[3 + i], *timings[i]) || *timings[i] == 0) {
            return std::nullopt;
        }
    }
    if (!parsePolarity(tokens[11], 'h', line.hsyncPositive) || !parsePolarity(tokens[12], 'v', line.vsyncPositive)) {
        return std::nullopt;
    }
    return line;
}

int lowerRefresh(int refresh) {
    return refresh <= 9 ? refresh - 1 : refresh - 5;
}

std::optional<ModeLine> cvtModeLine(uint16_t width, uint16_t height, int refresh, const CvtRunner& run) {
    for (;;) {
        if (refresh <= 0) {
            Syslog::error("%s: vertRef incorrect", "cvtCreateMode");
            return std::nullopt;
        }
        auto line = parseModeLine(run({std::to_string(width), std::to_string(height), std::to_string(refresh)}));
        if (!line) {
            Syslog::error("%s: %s failed, width: %u, height: %u", "cvtCreateMode", "Modeline", width, height);
            return std::nullopt;
        }
        if (line->clockMHz > maxPixelClockMHz) {
            refresh = lowerRefresh(refresh);
            continue;
        }
        if (line->hdisplay != width) {
            const auto cross = line->name.find('x');
            line->name =
                std::to_string(width) + (cross == std::string::npos ? std::string() : line->name.substr(cross));
            line->hdisplay = width;
        }
        return line;
    }
}

} // namespace Vexa::Xcb
