// The RDP transport's pure parts: configuration and command line, the session request it sends (read back by the
// daemon's own parser), refusals, damage rectangles, input mapping, pointer masks, and its bus calls held against
// the interface description.

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

#include <freerdp/codec/color.h>
#include <freerdp/codec/region.h>
#include <freerdp/codec/rfx.h>
#include <freerdp/error.h>
#include <freerdp/input.h>
#include <freerdp/settings.h>

#include "common/json_config.h"
#include "rdp/bus_client.h"
#include "rdp/clipboard_text.h"
#include "rdp/config.h"
#include "rdp/cursor_shape.h"
#include "rdp/encoder.h"
#include "rdp/damage_region.h"
#include "rdp/input_map.h"
#include "rdp/logon.h"
#include "rdp/monitor_layout.h"
#include "start/session_request.h"
#include "test_support.h"

using namespace Vexa;
using namespace Vexa::Rdp;

namespace {

Json::Value json(std::string_view text) {
    return parseJsonStrict(text);
}

} // namespace

TEST(RdpConfig, KeysOverrideDefaultsAndWrongTypesAreRefused) {
    struct Case {
        const char* text;
        bool valid;
        const char* errorPart = "";
        std::string certificate = "/etc/vexa/rdp/tls.crt";
        std::string key = "/etc/vexa/rdp/tls.key";
        bool rdp = false, tls = true, nla = false, remoteFx = true;
        uint32_t frameRate = 30;
    };
    const Case cases[] = {
        {.text = "{}", .valid = true},
        {.text = R"({"rdp:certificate": "/c.pem", "rdp:key": "/k.pem"})",
         .valid = true,
         .certificate = "/c.pem",
         .key = "/k.pem"},
        {.text = R"({"rdp:security:rdp": true, "rdp:security:tls": false})", .valid = true, .rdp = true, .tls = false},
        {.text = R"({"rdp:security:nla": true, "rdp:codec:remotefx": false, "rdp:frame:rate": 60})",
         .valid = true,
         .nla = true,
         .remoteFx = false,
         .frameRate = 60},
        {.text = R"({"unknown:key": 1})", .valid = true},
        {.text = R"({"rdp:security:tls": "yes"})", .valid = false, .errorPart = "rdp:security:tls"},
        {.text = R"({"rdp:certificate": ""})", .valid = false, .errorPart = "rdp:certificate"},
        {.text = R"({"rdp:key": 5})", .valid = false, .errorPart = "rdp:key"},
        {.text = R"({"rdp:frame:rate": 0})", .valid = false, .errorPart = "rdp:frame:rate"},
        {.text = R"({"rdp:frame:rate": 61})", .valid = false, .errorPart = "rdp:frame:rate"},
        {.text = R"({"rdp:frame:rate": -3})", .valid = false, .errorPart = "rdp:frame:rate"},
        {.text = R"({"rdp:frame:rate": 2.5})", .valid = false, .errorPart = "rdp:frame:rate"},
        {.text = R"({"rdp:security:tls": false})", .valid = false, .errorPart = "no security layer"},
        {.text = "[]", .valid = false, .errorPart = "not a JSON object"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::string error;
        const auto config = parseRdpConfig(json(c.text), &error);
        ASSERT_EQ(config.has_value(), c.valid) << error;
        if (!c.valid) {
            EXPECT_NE(error.find(c.errorPart), std::string::npos) << error;
            continue;
        }
        EXPECT_EQ(config->certificate, c.certificate);
        EXPECT_EQ(config->key, c.key);
        EXPECT_EQ(config->securityRdp, c.rdp);
        EXPECT_EQ(config->securityTls, c.tls);
        EXPECT_EQ(config->securityNla, c.nla);
        EXPECT_EQ(config->remoteFx, c.remoteFx);
        EXPECT_EQ(config->frameRate, c.frameRate);
    }
}

TEST(RdpConfig, MissingFileGivesDefaultsAndBrokenFileIsRefused) {
    const auto dir = std::filesystem::temp_directory_path() / ("rdp-config-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    std::string error;
    const auto missing = loadRdpConfig(dir / "absent.json", &error);
    ASSERT_TRUE(missing.has_value()) << error;
    EXPECT_EQ(missing->certificate, "/etc/vexa/rdp/tls.crt");

    std::ofstream(dir / "broken.json") << "{\"rdp:key\": \"/k\",}";
    EXPECT_FALSE(loadRdpConfig(dir / "broken.json", &error).has_value());
    EXPECT_NE(error.find("invalid JSON"), std::string::npos) << error;

    std::ofstream(dir / "good.json") << R"({"rdp:key": "/k"})";
    const auto good = loadRdpConfig(dir / "good.json", &error);
    ASSERT_TRUE(good.has_value()) << error;
    EXPECT_EQ(good->key, "/k");
    std::filesystem::remove_all(dir);
}

TEST(RdpOptions, CommandLineTakesDescriptorConfigAndLevel) {
    struct Case {
        std::vector<std::string_view> args;
        bool valid;
        std::optional<int> fd;
        std::string config = defaultConfigPath;
        std::optional<std::string> level;
        bool help = false;
    };
    const Case cases[] = {
        {.args = {}, .valid = true},
        {.args = {"--fd", "7"}, .valid = true, .fd = 7},
        {.args = {"--fd", "0"}, .valid = true, .fd = 0},
        {.args = {"--config", "/tmp/x.json", "--log", "debug"},
         .valid = true,
         .config = "/tmp/x.json",
         .level = "debug"},
        {.args = {"--help"}, .valid = true, .help = true},
        {.args = {"--fd"}, .valid = false},
        {.args = {"--fd", "-1"}, .valid = false},
        {.args = {"--fd", "3x"}, .valid = false},
        {.args = {"--fd", ""}, .valid = false},
        {.args = {"--config", ""}, .valid = false},
        {.args = {"--port", "3389"}, .valid = false},
    };
    for (const auto& c : cases) {
        std::string joined;
        for (auto a : c.args) {
            joined += std::string(a) + " ";
        }
        SCOPED_TRACE(joined);
        std::string error;
        const auto options = parseOptions(c.args, &error);
        ASSERT_EQ(options.has_value(), c.valid) << error;
        if (!c.valid) {
            EXPECT_FALSE(error.empty());
            continue;
        }
        EXPECT_EQ(options->fd, c.fd);
        EXPECT_EQ(options->configPath, c.config);
        EXPECT_EQ(options->logLevel, c.level);
        EXPECT_EQ(options->help, c.help);
    }
}

TEST(RdpLogon, TheDaemonReadsTheRequestAsTheClientLoggedOn) {
    struct Case {
        LogonInfo logon;
        uint16_t width, height;
        uint8_t depth;
        std::string domain;
    };
    const Case cases[] = {
        {{"alice", "", "pa\"ss\\word", 1024, 768, 32, false, true, false}, 1024, 768, 24, ""},
        {{"bob", "CORP", "x", 1920, 1080, 24, true, false, false}, 1920, 1080, 24, "CORP"},
        {{"carol", "", "ü€ unicode", 800, 600, 16, false, false, true}, 800, 600, 24, ""},
        {{"dave", "", "p", 20000, 10, 8, false, true, false}, 8192, 64, 24, ""},
        {{"erin", "", "p", 0, 0, 0, false, true, false}, 1280, 1024, 24, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.logon.username);
        const auto parsed =
            parseSessionRequest(sessionRequestJson(c.logon), [](std::string_view) { return std::nullopt; });
        ASSERT_TRUE(parsed.request.has_value()) << parsed.reply;
        const auto& r = *parsed.request;
        EXPECT_EQ(r.username, c.logon.username);
        EXPECT_EQ(r.domain, c.domain);
        EXPECT_EQ(r.credentials.password, c.logon.password);
        EXPECT_EQ(r.width, c.width);
        EXPECT_EQ(r.height, c.height);
        EXPECT_EQ(r.depth, c.depth);
        EXPECT_EQ(r.secNla, c.logon.nla);
        EXPECT_EQ(r.secTls, c.logon.tls);
        EXPECT_EQ(r.secRdp, c.logon.rdp);
        EXPECT_EQ(r.sessionPath, terminalProgram);
    }
}

TEST(RdpLogon, RefusalsTellCredentialFaultsFromPolicy) {
    struct Case {
        int32_t reply;
        uint32_t errorInfo;
        int64_t logonError;
    };
    const Case cases[] = {
        {-1, ERRINFO_SERVER_INSUFFICIENT_PRIVILEGES, LOGON_FAILED_BAD_PASSWORD},
        {-2, ERRINFO_SERVER_INSUFFICIENT_PRIVILEGES, LOGON_FAILED_OTHER},
        {-3, ERRINFO_SERVER_INSUFFICIENT_PRIVILEGES, LOGON_FAILED_UPDATE_PASSWORD},
        {-4, ERRINFO_SERVER_INSUFFICIENT_PRIVILEGES, LOGON_FAILED_BAD_PASSWORD},
        {-5, ERRINFO_SERVER_DENIED_CONNECTION, -1},
        {-6, ERRINFO_SERVER_DENIED_CONNECTION, -1},
        {-8, ERRINFO_SERVER_INSUFFICIENT_PRIVILEGES, LOGON_FAILED_OTHER},
        {-9, ERRINFO_SERVER_DENIED_CONNECTION, -1},
        {-7, ERRINFO_SERVER_DENIED_CONNECTION, -1},
        {0, ERRINFO_SERVER_DENIED_CONNECTION, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        const auto refusal = refusalFor(c.reply);
        EXPECT_EQ(refusal.errorInfo, c.errorInfo);
        EXPECT_EQ(refusal.logonError, c.logonError);
        EXPECT_STRNE(refusal.reason, "");
    }
}

namespace {

// Which pixels of a small screen the rectangles cover.
std::vector<int> coverage(const std::vector<Rect>& rects, int width, int height) {
    std::vector<int> map(static_cast<size_t>(width * height), 0);
    for (const auto& r : rects) {
        for (int y = r.y; y < r.bottom(); ++y) {
            for (int x = r.x; x < r.right(); ++x) {
                if (x >= 0 && y >= 0 && x < width && y < height) {
                    ++map[static_cast<size_t>(y * width + x)];
                }
            }
        }
    }
    return map;
}

} // namespace

TEST(DamageRegion, MergedRectanglesCoverEveryDamagedPixelWithinTheScreen) {
    const Rect screen{0, 0, 200, 120};
    struct Case {
        const char* name;
        std::vector<Rect> rects;
        size_t maxRects;
        size_t expectCount;
    };
    const Case cases[] = {
        {"none", {}, 4, 0},
        {"empty ones dropped", {{5, 5, 0, 10}, {5, 5, 10, -1}}, 4, 0},
        {"outside the screen dropped", {{300, 10, 10, 10}, {-20, -20, 10, 10}}, 4, 0},
        {"clipped at the edges", {{-5, -5, 20, 20}, {190, 110, 30, 30}}, 4, 2},
        {"overlapping pair merges", {{10, 10, 50, 50}, {30, 30, 50, 50}}, 4, 1},
        {"contained one absorbed", {{0, 0, 100, 100}, {150, 0, 40, 40}, {10, 10, 5, 5}}, 4, 2},
        {"adjacent strips merge", {{0, 0, 100, 10}, {0, 10, 100, 10}, {0, 20, 100, 10}}, 4, 1},
        {"far corners stay apart", {{0, 0, 20, 20}, {180, 100, 20, 20}}, 4, 2},
        {"cap forces the cheapest merges",
         {{0, 0, 10, 10}, {100, 0, 10, 10}, {0, 100, 10, 10}, {190, 110, 10, 10}},
         2,
         2},
        {"cap of one is the bounding box", {{0, 0, 10, 10}, {190, 110, 10, 10}}, 1, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto merged = mergeRects(c.rects, screen, c.maxRects, 64);
        EXPECT_EQ(merged.size(), c.expectCount);
        EXPECT_LE(merged.size(), std::max<size_t>(c.maxRects, 1));
        for (const auto& r : merged) {
            EXPECT_FALSE(r.empty());
            EXPECT_TRUE(screen.contains(r)) << r.x << "," << r.y << " " << r.width << "x" << r.height;
        }
        const auto damaged = coverage(c.rects, screen.width, screen.height);
        const auto sent = coverage(merged, screen.width, screen.height);
        for (size_t i = 0; i < damaged.size(); ++i) {
            if (damaged[i] > 0) {
                ASSERT_GT(sent[i], 0) << "pixel " << i % 200 << "," << i / 200 << " lost";
            }
        }
    }
}

TEST(DamageRegion, AStormOfRectanglesBecomesTheirBoundingBox) {
    std::vector<Rect> storm;
    for (int i = 0; i < 600; ++i) {
        storm.push_back({(i * 7) % 1000, (i * 13) % 700, 1, 1});
    }
    const auto merged = mergeRects(storm, {0, 0, 1024, 768}, 16);
    ASSERT_EQ(merged.size(), 1u);
    for (const auto& r : storm) {
        EXPECT_TRUE(merged[0].contains(r));
    }
}

TEST(DamageRegion, RowBandsJoinOverlappingAndTouchingRows) {
    struct Case {
        const char* name;
        std::vector<Rect> rects;
        std::vector<Band> bands;
    };
    const Case cases[] = {
        {"none", {}, {}},
        {"one", {{5, 10, 3, 4}}, {{10, 4}}},
        {"overlap in rows, apart in columns", {{0, 10, 5, 10}, {100, 15, 5, 10}}, {{10, 15}}},
        {"touching", {{0, 0, 5, 10}, {0, 10, 5, 10}}, {{0, 20}}},
        {"apart, unsorted", {{0, 50, 5, 5}, {0, 0, 5, 5}}, {{0, 5}, {50, 5}}},
        {"nested", {{0, 0, 5, 100}, {0, 20, 5, 5}}, {{0, 100}}},
        {"empty ignored", {{0, 0, 0, 100}, {0, 40, 5, 5}}, {{40, 5}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(rowBands(c.rects), c.bands);
    }
}

TEST(DamageRegion, TilesCoverTheRectangleOnceWithinTheTileSize) {
    const Rect cases[] = {{0, 0, 64, 64}, {3, 5, 130, 70}, {10, 10, 1, 1}, {0, 0, 1024, 768}, {7, 0, 63, 129}};
    for (const auto& rect : cases) {
        SCOPED_TRACE(std::to_string(rect.width) + "x" + std::to_string(rect.height));
        const auto tiles = tileRect(rect, 64);
        int64_t area = 0;
        for (const auto& t : tiles) {
            EXPECT_LE(t.width, 64);
            EXPECT_LE(t.height, 64);
            EXPECT_TRUE(rect.contains(t));
            area += t.area();
        }
        // Contained and adding up to the whole: no gap, no overlap.
        EXPECT_EQ(area, rect.area());
        const size_t columns = static_cast<size_t>((rect.width + 63) / 64);
        const size_t rows = static_cast<size_t>((rect.height + 63) / 64);
        EXPECT_EQ(tiles.size(), columns * rows);
    }
    EXPECT_TRUE(tileRect({0, 0, 0, 5}, 64).empty());
    EXPECT_TRUE(tileRect({0, 0, 5, 5}, 0).empty());
}

TEST(InputMap, PointerFlagsBecomeXEventsInOrder) {
    using A = PointerAction;
    struct Case {
        const char* name;
        uint16_t flags;
        std::vector<A> actions;
    };
    const Case cases[] = {
        {"move", PTR_FLAGS_MOVE, {{A::Motion, 0, 10, 20}}},
        {"left down", PTR_FLAGS_DOWN | PTR_FLAGS_BUTTON1, {{A::Motion, 0, 10, 20}, {A::Press, 1}}},
        {"left up", PTR_FLAGS_BUTTON1, {{A::Motion, 0, 10, 20}, {A::Release, 1}}},
        {"right down", PTR_FLAGS_DOWN | PTR_FLAGS_BUTTON2, {{A::Motion, 0, 10, 20}, {A::Press, 3}}},
        {"middle down", PTR_FLAGS_DOWN | PTR_FLAGS_BUTTON3, {{A::Motion, 0, 10, 20}, {A::Press, 2}}},
        {"move with click, one motion",
         PTR_FLAGS_MOVE | PTR_FLAGS_DOWN | PTR_FLAGS_BUTTON1 | PTR_FLAGS_BUTTON2,
         {{A::Motion, 0, 10, 20}, {A::Press, 1}, {A::Press, 3}}},
        {"wheel up one notch", PTR_FLAGS_WHEEL | 0x0078, {{A::Press, 4}, {A::Release, 4}}},
        {"wheel down one notch (-120)",
         PTR_FLAGS_WHEEL | PTR_FLAGS_WHEEL_NEGATIVE | 0x0088,
         {{A::Press, 5}, {A::Release, 5}}},
        {"wheel up two notches",
         PTR_FLAGS_WHEEL | 0x00F0,
         {{A::Press, 4}, {A::Release, 4}, {A::Press, 4}, {A::Release, 4}}},
        {"small turn still one notch", PTR_FLAGS_WHEEL | 0x0010, {{A::Press, 4}, {A::Release, 4}}},
        {"horizontal right", PTR_FLAGS_HWHEEL | 0x0078, {{A::Press, 7}, {A::Release, 7}}},
        {"horizontal left", PTR_FLAGS_HWHEEL | PTR_FLAGS_WHEEL_NEGATIVE | 0x0088, {{A::Press, 6}, {A::Release, 6}}},
        {"nothing", 0, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(pointerActions(c.flags, 10, 20), c.actions);
    }
}

TEST(InputMap, ExtendedButtonsAndKeys) {
    using A = PointerAction;
    EXPECT_EQ(extendedPointerActions(PTR_XFLAGS_DOWN | PTR_XFLAGS_BUTTON1, 1, 2),
              (std::vector<A>{{A::Motion, 0, 1, 2}, {A::Press, 8}}));
    EXPECT_EQ(extendedPointerActions(PTR_XFLAGS_BUTTON2, 1, 2),
              (std::vector<A>{{A::Motion, 0, 1, 2}, {A::Release, 9}}));
    EXPECT_TRUE(extendedPointerActions(PTR_XFLAGS_DOWN, 1, 2).empty());

    struct Case {
        uint16_t flags;
        bool press, extended;
    };
    const Case cases[] = {
        {KBD_FLAGS_DOWN, true, false},
        {0, true, false},
        {KBD_FLAGS_RELEASE, false, false},
        {KBD_FLAGS_RELEASE | KBD_FLAGS_DOWN, false, false},
        {KBD_FLAGS_EXTENDED | KBD_FLAGS_DOWN, true, true},
        {KBD_FLAGS_EXTENDED | KBD_FLAGS_RELEASE, false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.flags);
        const auto action = keyAction(c.flags, 0x1c);
        EXPECT_EQ(action.press, c.press);
        EXPECT_EQ(action.extended, c.extended);
        EXPECT_EQ(action.scancode, 0x1cu);
    }
}

TEST(InputMap, LockKeysFollowTheClientsSynchronizeFlags) {
    struct Case {
        uint32_t flags;
        uint16_t mask;
        std::vector<uint8_t> taps;
    };
    constexpr uint16_t lock = 0x02, mod2 = 0x10, shift = 0x01;
    const Case cases[] = {
        {0, 0, {}},
        {KBD_SYNC_CAPS_LOCK, 0, {0x3a}},
        {0, lock, {0x3a}},
        {KBD_SYNC_CAPS_LOCK, lock, {}},
        {KBD_SYNC_NUM_LOCK, 0, {0x45}},
        {KBD_SYNC_NUM_LOCK | KBD_SYNC_CAPS_LOCK, shift, {0x3a, 0x45}},
        {KBD_SYNC_SCROLL_LOCK | KBD_SYNC_KANA_LOCK, shift | lock | mod2, {0x3a, 0x45}},
        {KBD_SYNC_NUM_LOCK | KBD_SYNC_CAPS_LOCK, lock | mod2, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.flags) + "/" + std::to_string(c.mask));
        EXPECT_EQ(lockKeysToTap(c.flags, c.mask), c.taps);
    }
}

TEST(InputMap, UnicodeUnitsBecomeKeysyms) {
    struct Case {
        std::u16string units;
        std::vector<uint32_t> keysyms; // one per completed character
    };
    const Case cases[] = {
        {u"a", {0x61}},
        {u"é", {0xe9}},
        {u"€", {0x010020ac}},
        {u"Ж", {0x01000416}},
        {u"\U0001F600", {0x0101f600}},
        {std::u16string{0xdc00, u'x'}, {0x78}},                 // a stray low surrogate is dropped
        {std::u16string{0xd83d, u'x'}, {0x78}},                 // a high surrogate without its low one is dropped
        {std::u16string{0xd83d, 0xd83d, 0xde00}, {0x0101f600}}, // the last high surrogate counts
        {u"\t", {0}},                                           // control characters type nothing
        {std::u16string{0x7f}, {0}},
        {std::u16string{0x85}, {0}},
        {std::u16string{0xa0}, {0xa0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.keysyms.empty() ? 0 : c.keysyms[0]);
        Utf16Joiner joiner;
        std::vector<uint32_t> keysyms;
        for (char16_t unit : c.units) {
            if (const auto character = joiner.add(unit)) {
                keysyms.push_back(unicodeKeysym(*character));
            }
        }
        EXPECT_EQ(keysyms, c.keysyms);
    }
    EXPECT_EQ(unicodeKeysym(0x110000), 0u);
    EXPECT_EQ(unicodeKeysym(0xd800), 0u);
}

TEST(InputMap, ScancodesGoToTheLowestKeycodeWithASymbol) {
    // An X server's evdev map as FreeRDP's tables read it: the left Alt scancode on Alt_L (64) and on the virtual
    // modifier keys 204 and 205, which carry no symbol at their first level; right Alt (extended) on 108 and 203.
    const std::map<uint8_t, uint32_t> scancodes{{38, 0x1e},  {64, 0x38},  {108, 0x138}, {203, 0x138},
                                                {204, 0x38}, {205, 0x38}, {207, 0x15b}, {250, 0x1e}};
    const std::set<uint8_t> bound{38, 64, 108, 250};
    const auto table = scancodeTable(
        [&](uint8_t code) {
            const auto found = scancodes.find(code);
            return found == scancodes.end() ? 0u : found->second;
        },
        [&](uint8_t code) { return bound.contains(code); });
    struct Case {
        uint32_t scancode;
        bool extended;
        uint8_t keycode;
    };
    const Case cases[] = {
        {0x38, false, 64}, // not 205: Alt works
        {0x38, true, 108}, // not 203
        {0x1e, false, 38}, // the lowest of two bound keycodes
        {0x5b, true, 0},   // only an unbound keycode: none (FreeRDP's own lookup is the fallback)
        {0x5b, false, 0},  // the extended flag is part of the scancode
        {0x10, false, 0},  // no keycode at all
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.scancode);
        EXPECT_EQ(keycodeOf(table, c.scancode, c.extended), c.keycode);
    }
}

TEST(CursorShape, MasksAreFlippedUnpremultipliedAndPadded) {
    CursorImage image;
    image.width = 3;
    image.height = 2;
    // Top row: opaque red, half-transparent white (premultiplied 0x80), transparent. Bottom row: opaque blue...
    image.pixels = {0xffff0000, 0x80808080, 0x00000000, 0xff0000ff, 0xff00ff00, 0x40200000};
    const auto masks = pointerMasks(image);
    ASSERT_EQ(masks.width, 3);
    ASSERT_EQ(masks.height, 2);
    ASSERT_EQ(masks.xorMask.size(), 3u * 2 * 4);
    // Rows of 3 bits padded to 2 bytes.
    EXPECT_EQ(masks.andMask, std::vector<uint8_t>(4, 0));
    auto pixel = [&](int row, int col) {
        const uint8_t* p = &masks.xorMask[static_cast<size_t>((row * 3 + col) * 4)];
        return std::vector<int>{p[0], p[1], p[2], p[3]};
    };
    // Stored bottom row first: row 0 of the masks is the image's bottom row.
    EXPECT_EQ(pixel(0, 0), (std::vector<int>{0xff, 0, 0, 0xff}));
    EXPECT_EQ(pixel(0, 1), (std::vector<int>{0, 0xff, 0, 0xff}));
    EXPECT_EQ(pixel(0, 2), (std::vector<int>{0, 0, 0x80, 0x40}));
    EXPECT_EQ(pixel(1, 0), (std::vector<int>{0, 0, 0xff, 0xff}));
    EXPECT_EQ(pixel(1, 1), (std::vector<int>{0xff, 0xff, 0xff, 0x80}));
    EXPECT_EQ(pixel(1, 2), (std::vector<int>{0, 0, 0, 0}));
}

TEST(CursorShape, LargeImagesAreClippedAndEmptyOnesGiveNothing) {
    CursorImage big;
    big.width = 130;
    big.height = 100;
    big.pixels.assign(130u * 100, 0xff112233);
    const auto masks = pointerMasks(big);
    EXPECT_EQ(masks.width, 96);
    EXPECT_EQ(masks.height, 96);
    EXPECT_EQ(masks.xorMask.size(), 96u * 96 * 4);
    EXPECT_EQ(masks.andMask.size(), 12u * 96);

    CursorImage empty;
    EXPECT_EQ(pointerMasks(empty).width, 0);
    CursorImage short_;
    short_.width = 4;
    short_.height = 4;
    short_.pixels.assign(3, 0);
    EXPECT_TRUE(pointerMasks(short_).xorMask.empty());
}

TEST(RdpBusCalls, SignaturesMatchTheInterfaceDescription) {
    const auto described = TestSupport::interfaceSignatures();
    ASSERT_GT(described.size(), 90u);
    for (const auto& m : busMethods()) {
        SCOPED_TRACE(std::string(m.name));
        const auto found = described.find(std::string(m.name));
        ASSERT_NE(found, described.end());
        EXPECT_EQ(found->second.first, m.in);
        EXPECT_EQ(found->second.second, m.out);
    }
}

namespace {

std::vector<uint8_t> utf16(std::u16string_view text) {
    std::vector<uint8_t> out;
    for (char16_t u : text) {
        out.push_back(static_cast<uint8_t>(u & 0xff));
        out.push_back(static_cast<uint8_t>(u >> 8));
    }
    return out;
}

} // namespace

TEST(ClipboardText, ClientTextBecomesUtf8WithinTheLimit) {
    struct Case {
        const char* name;
        std::vector<uint8_t> data;
        size_t limit;
        std::string expect;
    };
    const Case cases[] = {
        {"plain", utf16(u"hello"), 100, "hello"},
        {"CRLF to LF, lone CR kept", utf16(u"a\r\nb\rc\n"), 100, "a\nb\rc\n"},
        {"stops at NUL", utf16(std::u16string(u"ab\0cd", 5)), 100, "ab"},
        {"two and three byte forms", utf16(u"ü€"), 100, "\xc3\xbc\xe2\x82\xac"},
        {"surrogate pair", utf16(u"\U0001F600"), 100, "\xf0\x9f\x98\x80"},
        {"lone high surrogate", utf16(std::u16string{0xd83d, u'x'}), 100, "\xef\xbf\xbdx"},
        {"lone low surrogate", utf16(std::u16string{0xde00}), 100, "\xef\xbf\xbd"},
        {"high surrogate at the end", utf16(std::u16string{u'a', 0xd83d}), 100, "a\xef\xbf\xbd"},
        {"odd last byte ignored", {'a', 0, 'b'}, 100, "a"},
        {"limit cuts between characters", utf16(u"a€b"), 3, "a"},
        {"limit exactly", utf16(u"a€"), 4, "a\xe2\x82\xac"},
        {"zero limit", utf16(u"abc"), 0, ""},
        {"empty", {}, 100, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(utf16leToUtf8(c.data, c.limit), c.expect);
    }
}

TEST(ClipboardText, XTextBecomesTerminatedUtf16WithinTheLimit) {
    struct Case {
        const char* name;
        std::string_view text;
        size_t limit;
        std::u16string expect; // without the terminator
    };
    const Case cases[] = {
        {"plain", "hi", 100, u"hi"},
        {"LF to CRLF", "a\nb", 100, u"a\r\nb"},
        {"CRLF kept as it is", "a\r\nb", 100, u"a\r\nb"},
        {"multi-byte", "\xc3\xbc\xe2\x82\xac", 100, u"ü€"},
        {"four-byte form to a pair", "\xf0\x9f\x98\x80", 100, u"\U0001F600"},
        {"invalid lead", "a\xffz", 100, u"a\xfffdz"},
        {"truncated sequence", "a\xe2\x82", 100, u"a\xfffd\xfffd"},
        {"overlong form", "\xc0\xaf", 100, u"\xfffd\xfffd"},
        {"encoded surrogate", "\xed\xa0\x80", 100, u"\xfffd\xfffd\xfffd"},
        {"stops at NUL", std::string_view("ab\0c", 4), 100, u"ab"},
        {"limit keeps the terminator", "abcdef", 8, u"abc"},
        {"a pair is not split", "a\xf0\x9f\x98\x80", 6, u"a"},
        {"CRLF is not split", "a\nb", 5, u"a"},
        {"tiny limit gives the terminator alone", "abc", 1, u""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::u16string terminated(c.expect);
        terminated.push_back(0);
        EXPECT_EQ(utf8ToUtf16le(c.text, c.limit), utf16(terminated));
    }
}

TEST(ClipboardText, PolicyBitsLimitAndFormats) {
    struct Case {
        uint32_t bits, limit;
        bool toServer, toClient;
        size_t expectLimit;
    };
    const Case cases[] = {
        {0x08000000, 0, false, false, clipboardHardLimit},
        {0x08000000 | (1u << 24), 100, false, true, 100},
        {0x08000000 | (1u << 25), 100, true, false, 100},
        {0x3f00002c, 0, true, true, clipboardHardLimit},
        {(1u << 24) | (1u << 25), 0xffffffff, true, true, clipboardHardLimit},
        {(1u << 26), 10, false, false, 10},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bits);
        const auto policy = clipboardPolicy(c.bits, c.limit);
        EXPECT_EQ(policy.clientToServer, c.toServer);
        EXPECT_EQ(policy.serverToClient, c.toClient);
        EXPECT_EQ(policy.limit, c.expectLimit);
    }
    const uint32_t withUnicode[] = {1, 7, 13, 0xc0a1};
    const uint32_t ansiOnly[] = {1, 7};
    EXPECT_EQ(pickTextFormat(withUnicode), formatUnicodeText);
    EXPECT_EQ(pickTextFormat(ansiOnly), 0u);
    EXPECT_EQ(pickTextFormat({}), 0u);
}

TEST(MonitorLayout, OneMonitorResizesSeveralGoToTheServiceBadOnesAreIgnored) {
    using K = LayoutRequest::Kind;
    const Monitor hd{.flags = 1, .width = 1920, .height = 1080};
    const Monitor side{.left = 1920, .width = 1280, .height = 1024};
    struct Case {
        const char* name;
        std::vector<Monitor> monitors;
        K kind;
        uint16_t width = 0, height = 0;
    };
    const Case cases[] = {
        {"one monitor, new size", {hd}, K::Resize, 1920, 1080},
        {"one monitor, same size", {{.width = 1024, .height = 768}}, K::Ignore},
        {"two monitors", {hd, side}, K::Monitors},
        {"none", {}, K::Ignore},
        {"too narrow", {{.width = 199, .height = 600}}, K::Ignore},
        {"too tall", {{.width = 800, .height = 8193}}, K::Ignore},
        {"smallest and largest", {{.width = 200, .height = 8192}}, K::Resize, 200, 8192},
        {"one bad among several", {hd, {.width = 100, .height = 100}}, K::Ignore},
        {"seventeen monitors", std::vector<Monitor>(17, hd), K::Ignore},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto request = layoutRequest(c.monitors, 1024, 768);
        EXPECT_EQ(request.kind, c.kind) << request.reason;
        if (c.kind == K::Resize) {
            EXPECT_EQ(request.width, c.width);
            EXPECT_EQ(request.height, c.height);
        }
        if (c.kind == K::Monitors) {
            ASSERT_EQ(request.monitors.size(), c.monitors.size());
            EXPECT_EQ(request.monitors[1].left, 1920);
        }
        if (c.kind == K::Ignore) {
            EXPECT_FALSE(request.reason.empty());
        }
    }
}

namespace {

// A peer's context for the encoder with the updates it sends decoded onto a canvas, as a client would.
struct DecodingPeer {
    rdpContext context{}; // first: the update callbacks get this address
    rdpUpdate update{};
    rdpSettings* settings = freerdp_settings_new(FREERDP_SETTINGS_SERVER_MODE);
    BITMAP_PLANAR_CONTEXT* planar = freerdp_bitmap_planar_context_new(0, 64, 64);
    uint32_t width, height;
    std::vector<uint8_t> canvas;
    size_t updates = 0, rectangles = 0;
    bool decodeFailed = false;

    DecodingPeer(uint32_t w, uint32_t h, uint32_t depth) : width(w), height(h), canvas(size_t{w} * h * 4, 0) {
        settings->DesktopWidth = w;
        settings->DesktopHeight = h;
        settings->ColorDepth = depth;
        settings->RemoteFxCodec = FALSE;
        context.settings = settings;
        context.update = &update;
        update.context = &context;
        update.BitmapUpdate = [](rdpContext* ctx, const BITMAP_UPDATE* bitmap) -> BOOL {
            auto* self = reinterpret_cast<DecodingPeer*>(ctx);
            ++self->updates;
            for (UINT32 i = 0; i < bitmap->number; ++i) {
                const BITMAP_DATA& b = bitmap->rectangles[i];
                ++self->rectangles;
                // As FreeRDP's client does: planar for compressed 32 bpp, a flipped copy for uncompressed data.
                const UINT32 format = b.bitsPerPixel == 24   ? PIXEL_FORMAT_BGR24
                                      : b.bitsPerPixel == 16 ? PIXEL_FORMAT_RGB16
                                                             : PIXEL_FORMAT_RGB15;
                const bool ok = b.compressed ? b.bitsPerPixel == 32 &&
                                                   planar_decompress(self->planar, b.bitmapDataStream, b.bitmapLength,
                                                                     b.width, b.height, self->canvas.data(),
                                                                     PIXEL_FORMAT_BGRX32, self->width * 4, b.destLeft,
                                                                     b.destTop, b.width, b.height, TRUE)
                                             : b.bitmapLength == b.width * b.height * GetBytesPerPixel(format) &&
                                                   self->copyFlipped(b, format);
                self->decodeFailed |=
                    !ok || b.destRight != b.destLeft + b.width - 1 || b.destBottom != b.destTop + b.height - 1;
            }
            return TRUE;
        };
    }
    // Uncompressed data: rows bottom up, packed.
    bool copyFlipped(const BITMAP_DATA& b, UINT32 format) {
        const UINT32 step = b.width * GetBytesPerPixel(format);
        for (UINT32 row = 0; row < b.height; ++row) {
            if (!freerdp_image_copy(canvas.data(), PIXEL_FORMAT_BGRX32, width * 4, b.destLeft, b.destTop + row, b.width,
                                    1, b.bitmapDataStream + (b.height - 1 - row) * step, format, step, 0, 0, nullptr,
                                    FREERDP_FLIP_NONE)) {
                return false;
            }
        }
        return true;
    }
    ~DecodingPeer() {
        freerdp_bitmap_planar_context_free(planar);
        freerdp_settings_free(settings);
    }
};

// A screen of text-like noise with a gradient, in the X server's BGRX layout.
std::vector<uint8_t> syntheticScreen(uint32_t width, uint32_t height) {
    std::vector<uint8_t> frame(size_t{width} * height * 4);
    uint32_t seed = 12345;
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            seed = seed * 1103515245 + 12345;
            uint8_t* p = &frame[(size_t{y} * width + x) * 4];
            const bool ink = (y % 16) < 12 && ((seed >> 16) % 5) == 0;
            p[0] = ink ? 0 : static_cast<uint8_t>(x * 255 / width);
            p[1] = ink ? 0 : static_cast<uint8_t>(y * 255 / height);
            p[2] = ink ? 0 : 0xe0;
            p[3] = 0;
        }
    }
    return frame;
}

} // namespace

TEST(Encoder, BitmapUpdatesDecodeToTheScreenTheyWereTakenFrom) {
    struct Case {
        const char* name;
        uint32_t depth;
        Codec codec;
        int tolerance; // per colour channel
        std::vector<Rect> rects;
    };
    const Case cases[] = {
        {"planar, whole screen", 32, Codec::Planar, 0, {{0, 0, 200, 150}}},
        {"planar, odd rectangles", 32, Codec::Planar, 0, {{3, 5, 17, 9}, {150, 100, 50, 50}, {199, 149, 1, 1}}},
        {"uncompressed 24 bpp", 24, Codec::Uncompressed, 0, {{0, 0, 200, 150}}},
        {"uncompressed 16 bpp", 16, Codec::Uncompressed, 8, {{0, 0, 200, 150}}},
        {"uncompressed 15 bpp", 15, Codec::Uncompressed, 8, {{5, 7, 100, 70}}},
    };
    const uint32_t width = 200, height = 150;
    const auto frame = syntheticScreen(width, height);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        DecodingPeer peer(width, height, c.depth);
        Encoder encoder(&peer.context, true);
        ASSERT_EQ(encoder.codec(), c.codec);
        ASSERT_TRUE(encoder.send(frame.data(), width * 4, width, height, c.rects));
        EXPECT_FALSE(peer.decodeFailed);
        EXPECT_GT(peer.rectangles, 0u);
        // Every pixel of the rectangles (widened to whole 4-pixel columns) arrived.
        size_t wrong = 0;
        for (const auto& r : c.rects) {
            for (int y = r.y; y < r.bottom(); ++y) {
                for (int x = r.x; x < r.right(); ++x) {
                    const size_t at = (static_cast<size_t>(y) * width + static_cast<size_t>(x)) * 4;
                    for (int k = 0; k < 3; ++k) {
                        wrong += std::abs(int{frame[at + k]} - int{peer.canvas[at + k]}) > c.tolerance;
                    }
                }
            }
        }
        EXPECT_EQ(wrong, 0u);
    }
}

TEST(Encoder, LargeFramesAreSplitIntoUpdatesWithinTheClientsLimit) {
    const uint32_t width = 1024, height = 768;
    const auto frame = syntheticScreen(width, height);
    struct Case {
        uint32_t multifrag;
        bool split;
    };
    // No multi-fragment support: one fast-path PDU's worth; a large limit takes the whole frame at once.
    for (const auto [multifrag, split] : {Case{0, true}, Case{0x10000, true}, Case{0x400000, false}}) {
        SCOPED_TRACE(multifrag);
        DecodingPeer peer(width, height, 32);
        peer.settings->MultifragMaxRequestSize = multifrag;
        size_t largest = 0;
        peer.update.BitmapUpdate = [](rdpContext* ctx, const BITMAP_UPDATE* bitmap) -> BOOL {
            auto* self = reinterpret_cast<DecodingPeer*>(ctx);
            ++self->updates;
            size_t bytes = 0;
            for (UINT32 i = 0; i < bitmap->number; ++i) {
                bytes += bitmap->rectangles[i].bitmapLength;
            }
            self->rectangles = std::max<size_t>(self->rectangles, bytes);
            return TRUE;
        };
        Encoder encoder(&peer.context, true);
        ASSERT_TRUE(encoder.send(frame.data(), width * 4, width, height, {{0, 0, 1024, 768}}));
        largest = peer.rectangles;
        EXPECT_LE(largest, std::max<size_t>(multifrag, 0x3f00) - 1024);
        EXPECT_EQ(peer.updates > 1, split) << peer.updates << " updates";
    }
}

TEST(DamageRegion, ManyScatteredRectanglesBecomeRowBandsThenTheCap) {
    // Three bands of rows, each with many small, far apart rectangles.
    std::vector<Rect> rects;
    for (int band : {0, 300, 600}) {
        for (int i = 0; i < 30; ++i) {
            rects.push_back({i * 60, band + (i % 3), 8, 16});
        }
    }
    const Rect screen{0, 0, 1920, 1080};
    const auto merged = mergeRects(rects, screen, 8);
    ASSERT_EQ(merged.size(), 3u);
    for (const auto& r : rects) {
        EXPECT_TRUE(std::any_of(merged.begin(), merged.end(), [&](const Rect& m) { return m.contains(r); }));
    }
    for (const auto& m : merged) {
        EXPECT_LE(m.height, 18);
    }
}

TEST(Encoder, RemoteFxFramesDecodeCloseToTheScreenWhateverTheClientsLimit) {
    const uint32_t width = 640, height = 480;
    const auto frame = syntheticScreen(width, height);
    struct Case {
        const char* name;
        uint32_t multifrag;
        std::vector<Rect> rects;
    };
    const Case cases[] = {
        {"whole screen, large limit", 0x400000, {{0, 0, 640, 480}}},
        {"whole screen in groups", 0x40000, {{0, 0, 640, 480}}},
        {"several rectangles in groups", 0x30000, {{0, 0, 300, 200}, {350, 250, 290, 230}, {10, 400, 5, 5}}},
        {"a character", 0x400000, {{100, 100, 8, 16}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        DecodingPeer peer(width, height, 32);
        peer.settings->RemoteFxCodec = TRUE;
        peer.settings->SurfaceCommandsEnabled = TRUE;
        peer.settings->MultifragMaxRequestSize = c.multifrag;
        struct Decoder {
            RFX_CONTEXT* rfx = rfx_context_new(FALSE);
            size_t largest = 0, commands = 0, begins = 0, ends = 0;
            bool failed = false;
            ~Decoder() { rfx_context_free(rfx); }
        };
        static Decoder* decoder = nullptr;
        Decoder state;
        decoder = &state;
        rfx_context_set_pixel_format(state.rfx, PIXEL_FORMAT_BGRX32);
        peer.update.SurfaceBits = [](rdpContext* ctx, const SURFACE_BITS_COMMAND* cmd) -> BOOL {
            auto* self = reinterpret_cast<DecodingPeer*>(ctx);
            REGION16 region;
            region16_init(&region);
            decoder->failed |= !rfx_process_message(decoder->rfx, cmd->bmp.bitmapData, cmd->bmp.bitmapDataLength,
                                                    cmd->destLeft, cmd->destTop, self->canvas.data(),
                                                    PIXEL_FORMAT_BGRX32, self->width * 4, self->height, &region);
            region16_uninit(&region);
            decoder->largest = std::max<size_t>(decoder->largest, cmd->bmp.bitmapDataLength);
            ++decoder->commands;
            return TRUE;
        };
        peer.update.SurfaceFrameMarker = [](rdpContext*, const SURFACE_FRAME_MARKER* marker) -> BOOL {
            ++(marker->frameAction == SURFACECMD_FRAMEACTION_BEGIN ? decoder->begins : decoder->ends);
            return TRUE;
        };
        Encoder encoder(&peer.context, true);
        ASSERT_EQ(encoder.codec(), Codec::RemoteFx);
        ASSERT_TRUE(encoder.send(frame.data(), width * 4, width, height, c.rects));
        EXPECT_FALSE(state.failed);
        EXPECT_EQ(state.begins, 1u);
        EXPECT_EQ(state.ends, 1u);
        EXPECT_GE(state.commands, 1u);
        EXPECT_LE(state.largest, c.multifrag - 1024);
        // Lossy, but close: the mean error per channel inside the rectangles.
        double error = 0;
        size_t samples = 0;
        for (const auto& r : c.rects) {
            for (int y = r.y; y < r.bottom(); ++y) {
                for (int x = r.x; x < r.right(); ++x) {
                    const size_t at = (static_cast<size_t>(y) * width + static_cast<size_t>(x)) * 4;
                    for (int k = 0; k < 3; ++k) {
                        error += std::abs(int{frame[at + k]} - int{peer.canvas[at + k]});
                        ++samples;
                    }
                }
            }
        }
        EXPECT_LT(error / static_cast<double>(samples), 6.0);
        decoder = nullptr;
    }
}
