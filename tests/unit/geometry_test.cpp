// Mode lines from the mode-line tool's real output and the layout of a client's monitors on one screen.

#include <fstream>
#include <map>
#include <sstream>

#include <gtest/gtest.h>

#include "xcb/layout.h"
#include "xcb/modeline.h"

using namespace Vexa::Xcb;

namespace {

// The saved runs of the tool, by their arguments ("W H R").
const std::map<std::string, std::string>& savedRuns() {
    static const auto runs = [] {
        std::map<std::string, std::string> found;
        std::ifstream in(VEXA_TEST_DATA "/cvt-outputs.txt");
        std::string line, args;
        while (std::getline(in, line)) {
            if (line.rfind("$ cvt ", 0) == 0) {
                args = line.substr(6);
            } else if (!args.empty()) {
                found[args] += line + "\n";
            }
        }
        return found;
    }();
    return runs;
}

// A runner that answers from the saved runs and records what it was asked.
struct SavedCvt {
    std::vector<std::string> asked;
    std::string operator()(const std::list<std::string>& args) {
        std::string key;
        for (const auto& arg : args) {
            key += (key.empty() ? "" : " ") + arg;
        }
        asked.push_back(key);
        const auto found = savedRuns().find(key);
        return found == savedRuns().end() ? std::string("usage: cvt [-v|--verbose] [-r|--reduced] X Y [refresh]\n")
                                          : found->second;
    }
};

} // namespace

TEST(ModeLine, ReadsTheToolsOutput) {
    ASSERT_EQ(savedRuns().size(), 24U);
    const auto line = parseModeLine(savedRuns().at("1920 1080 60"));
    ASSERT_TRUE(line);
    EXPECT_EQ(line->name, "1920x1080_60.00");
    EXPECT_DOUBLE_EQ(line->clockMHz, 173.0);
    EXPECT_EQ((std::array{line->hdisplay, line->hsyncStart, line->hsyncEnd, line->htotal}),
              (std::array<uint16_t, 4>{1920, 2048, 2248, 2576}));
    EXPECT_EQ((std::array{line->vdisplay, line->vsyncStart, line->vsyncEnd, line->vtotal}),
              (std::array<uint16_t, 4>{1080, 1083, 1088, 1120}));
    EXPECT_FALSE(line->hsyncPositive);
    EXPECT_TRUE(line->vsyncPositive);
    EXPECT_EQ(line->text.rfind("Modeline \"1920x1080_60.00\"", 0), 0U);
}

TEST(ModeLine, RefusesWhatIsNotAModeLine) {
    for (const char* text : {
             "usage: cvt [-v|--verbose] [-r|--reduced] X Y [refresh]",
             "Modeline \"a\" 173.00 1920 2048 2248 2576 1080 1083 1088 -hsync +vsync",
             "Modeline \"a\" 173.00 1920 2048 2248 2576 1080 1083 1088 1120 -hsync +vsync extra",
             "Modeline \"a\" fast 1920 2048 2248 2576 1080 1083 1088 1120 -hsync +vsync",
             "Modeline \"a\" 173.00 1920 2048 2248 70000 1080 1083 1088 1120 -hsync +vsync",
             "Modeline \"a\" 173.00 1920 2048 2248 2576 1080 1083 1088 1120 -vsync +hsync",
         }) {
        EXPECT_FALSE(parseModeLine(text)) << text;
    }
}

TEST(ModeLine, RefreshStepsDownByFiveThenByOne) {
    std::vector<int> steps;
    for (int refresh = 60; refresh > 0; refresh = lowerRefresh(refresh)) {
        steps.push_back(refresh);
    }
    EXPECT_EQ(steps, (std::vector<int>{60, 55, 50, 45, 40, 35, 30, 25, 20, 15, 10, 5, 4, 3, 2, 1}));
}

TEST(ModeLine, LowersTheRefreshUntilTheClockFitsAndKeepsTheRequestedWidth) {
    struct Case {
        uint16_t width, height;
        size_t runs;
        const char* name;
        double clock;
    };
    for (const auto& c : {Case{1920, 1080, 1, "1920x1080_60.00", 173.0}, Case{3840, 2160, 8, "3840x2160_25.00", 278.75},
                          Case{8192, 4096, 12, "8192x4096_5.00", 210.25},
                          Case{1366, 768, 1, "1366x768_60.00", 85.25}}) { // the tool rounds 1366 up to 1368
        SavedCvt cvt;
        const auto line = cvtModeLine(c.width, c.height, 60, std::ref(cvt));
        ASSERT_TRUE(line) << c.name;
        EXPECT_EQ(line->name, c.name);
        EXPECT_EQ(line->hdisplay, c.width);
        EXPECT_DOUBLE_EQ(line->clockMHz, c.clock);
        EXPECT_EQ(cvt.asked.size(), c.runs) << c.name;
    }
    // Without a refresh rate the tool is not asked; without a mode line in its answer the search gives up.
    SavedCvt cvt;
    EXPECT_FALSE(cvtModeLine(1920, 1080, 0, std::ref(cvt)));
    EXPECT_FALSE(cvtModeLine(0, 0, 60, std::ref(cvt)));
    EXPECT_EQ(cvt.asked.size(), 1U);
}

namespace {

struct Placed {
    int x, y, width, height;
    bool primary;
    bool operator==(const Placed&) const = default;
};

std::vector<Placed> placed(const Layout& layout) {
    std::vector<Placed> out;
    for (const auto& m : layout.monitors) {
        out.push_back({m.x, m.y, m.width, m.height, m.primary});
    }
    return out;
}

MonitorRequest monitor(int32_t left, int32_t top, uint32_t width, uint32_t height, uint32_t flags = 0) {
    return MonitorRequest{flags, left, top, width, height};
}

} // namespace

TEST(MonitorLayout, MovesTheBoundingBoxToTheOriginAndPicksOnePrimary) {
    struct Case {
        const char* what;
        std::vector<MonitorRequest> monitors;
        int width, height;
        std::vector<Placed> expected;
    };
    const Case cases[] = {
        {"one", {monitor(0, 0, 1920, 1080, monitorPrimaryFlag)}, 1920, 1080, {{0, 0, 1920, 1080, true}}},
        {"second to the left",
         {monitor(0, 0, 1920, 1080, monitorPrimaryFlag), monitor(-1280, 56, 1280, 1024)},
         3200,
         1080,
         {{1280, 0, 1920, 1080, true}, {0, 56, 1280, 1024, false}}},
        {"no flag: the one at the client's origin",
         {monitor(0, -768, 1024, 768), monitor(0, 0, 1024, 768)},
         1024,
         1536,
         {{0, 0, 1024, 768, false}, {0, 768, 1024, 768, true}}},
        {"no flag and nothing at the origin: the first",
         {monitor(10, 10, 800, 600), monitor(810, 10, 800, 600)},
         1600,
         600,
         {{0, 0, 800, 600, true}, {800, 0, 800, 600, false}}},
    };
    for (const auto& c : cases) {
        const auto result = layoutMonitors(c.monitors);
        ASSERT_TRUE(std::holds_alternative<Layout>(result)) << c.what << ": " << std::get<std::string>(result);
        const auto& layout = std::get<Layout>(result);
        EXPECT_EQ(layout.width, c.width) << c.what;
        EXPECT_EQ(layout.height, c.height) << c.what;
        EXPECT_EQ(placed(layout), c.expected) << c.what;
    }
}

TEST(MonitorLayout, RefusesWhatNoScreenCanShow) {
    MonitorRequest turned = monitor(0, 0, 1024, 768);
    turned.orientation = 45;
    const std::pair<const char*, std::vector<MonitorRequest>> cases[] = {
        {"none", {}},
        {"seventeen", std::vector<MonitorRequest>(17, monitor(0, 0, 1024, 768))},
        {"too narrow", {monitor(0, 0, minMonitorSide - 1, 768)}},
        {"orientation", {turned}},
        {"two primaries", {monitor(0, 0, 800, 600, 1), monitor(800, 0, 800, 600, 1)}},
        {"beyond 16-bit coordinates", {monitor(0, 0, 8192, 600), monitor(30000, 0, 8192, 600)}},
        {"far apart", {monitor(INT32_MIN, 0, 8192, 600), monitor(INT32_MAX - 8192, 0, 8192, 600)}},
    };
    for (const auto& [what, monitors] : cases) {
        EXPECT_TRUE(std::holds_alternative<std::string>(layoutMonitors(monitors))) << what;
    }
    EXPECT_TRUE(std::holds_alternative<Layout>(screenLayout(8192, 4096)));
    EXPECT_TRUE(std::holds_alternative<std::string>(screenLayout(0, 0)));
}
