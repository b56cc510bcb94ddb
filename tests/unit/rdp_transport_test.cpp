// The RDP transport's pure parts: configuration, the session request it sends (read back by the
// daemon's own parser), damage rectangles, input mapping, pointer masks, the clipboard, monitor layouts, the encoder
// and its bus calls held against the interface description.

#include <algorithm>
#include <arpa/inet.h>
#include <fstream>
#include <map>
#include <set>

#include <gtest/gtest.h>

#include <freerdp/codec/color.h>
#include <freerdp/codec/region.h>
#include <freerdp/codec/rfx.h>
#include <freerdp/input.h>
#include <freerdp/settings.h>

#include "common/events.h"
#include "common/json_config.h"
#include "rdp/bus_client.h"
#include "rdp/clipboard_text.h"
#include "rdp/config.h"
#include "rdp/cursor_shape.h"
#include "rdp/damage_region.h"
#include "rdp/encoder.h"
#include "rdp/input_map.h"
#include "rdp/logon.h"
#include "rdp/monitor_layout.h"
#include "rdp/transport.h"
#include "start/session_request.h"
#include "test_support.h"

using namespace Vexa;
using namespace Vexa::Rdp;

TEST(RdpConfig, KeysOverrideDefaultsAndWrongTypesAreRefused) {
    const auto fields = [](const RdpConfig& c) {
        return std::tie(c.certificate, c.key, c.securityRdp, c.securityTls, c.securityNla, c.remoteFx, c.frameRate,
                        c.startTimeout, c.logLevel, c.loginUser);
    };
    EXPECT_EQ(fields(parseRdpConfig(parseJsonStrict("{}")).value()), fields(RdpConfig{}));
    const auto every = parseRdpConfig(parseJsonStrict(R"({"rdp:certificate": "/c.pem", "rdp:key": "/k.pem",
        "rdp:security:rdp": true, "rdp:security:tls": false, "rdp:security:nla": true, "rdp:codec:remotefx": false,
        "rdp:frame:rate": 60, "rdp:start:timeout": 3600, "rdp:log:level": "debug",
        "rdp:login:user": "e2e-login", "unknown:key": 1})"));
    ASSERT_TRUE(every);
    EXPECT_EQ(fields(*every),
              fields(RdpConfig{"/c.pem", "/k.pem", true, false, true, false, 60, 3600, "debug", "e2e-login"}));
    const std::pair<const char*, const char*> refused[] = {
        {R"({"rdp:security:tls": "yes"})", "rdp:security:tls"},
        {R"({"rdp:certificate": ""})", "rdp:certificate"},
        {R"({"rdp:frame:rate": 0})", "rdp:frame:rate"},
        {R"({"rdp:frame:rate": 61})", "rdp:frame:rate"},
        {R"({"rdp:frame:rate": 2.5})", "rdp:frame:rate"},
        {R"({"rdp:security:tls": false})", "no security layer"},
        {"[]", "not a JSON object"},
    };
    for (const auto& [text, errorPart] : refused) {
        std::string error;
        EXPECT_FALSE(parseRdpConfig(parseJsonStrict(text), &error)) << text;
        EXPECT_NE(error.find(errorPart), std::string::npos) << error;
    }
    // A missing file gives the defaults, a broken one is refused.
    const TestSupport::TempDir dir;
    std::string error;
    EXPECT_EQ(loadRdpConfig(dir.path / "absent.json", &error)->certificate, "/etc/vexa/rdp/tls.crt") << error;
    std::ofstream(dir.path / "broken.json") << "{\"rdp:key\": \"/k\",}";
    EXPECT_FALSE(loadRdpConfig(dir.path / "broken.json", &error).has_value());
    EXPECT_NE(error.find("invalid JSON"), std::string::npos) << error;
}

TEST(RdpLogon, TheDaemonReadsTheRequestAsTheClientLoggedOn) {
    struct Case {
        LogonInfo logon;
        uint16_t width, height;
        std::string domain;
    };
    const Case cases[] = {
        {{"alice", "", "pa\"ss\\word", 1024, 768, 32, false, true, false}, 1024, 768, ""},
        {{"bob", "CORP", "ü€ unicode", 1920, 1080, 16, true, false, true}, 1920, 1080, "CORP"},
        {{"dave", "", "p", 20000, 10, 8, false, true, false}, 8192, 64, ""}, // clamped
        {{"erin", "", "p", 0, 0, 0, false, true, false}, 1280, 1024, ""},    // the client's size unknown
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
        EXPECT_EQ(r.depth, 24); // sessions are always 24 bit deep
        EXPECT_EQ(r.secNla, c.logon.nla);
        EXPECT_EQ(r.secTls, c.logon.tls);
        EXPECT_EQ(r.secRdp, c.logon.rdp);
        EXPECT_EQ(r.sessionPath, terminalProgram);
    }
}

namespace {

// How often each pixel of the screen is covered by the rectangles.
std::vector<int> coverage(const std::vector<Rect>& rects, const Rect& screen) {
    std::vector<int> map(static_cast<size_t>(screen.area()), 0);
    for (const auto& r : rects) {
        const Rect in = intersect(r, screen);
        for (int y = in.y; y < in.bottom(); ++y) {
            for (int x = in.x; x < in.right(); ++x) {
                ++map[static_cast<size_t>(y * screen.width + x)];
            }
        }
    }
    return map;
}

std::vector<Rect> scatteredBands() {
    std::vector<Rect> rects;
    for (int band : {0, 300, 600}) {
        for (int i = 0; i < 30; ++i) {
            rects.push_back({i * 60, band + (i % 3), 8, 16});
        }
    }
    return rects;
}

std::vector<Rect> storm() {
    std::vector<Rect> rects;
    for (int i = 0; i < 600; ++i) {
        rects.push_back({(i * 7) % 1000, (i * 13) % 700, 1, 1});
    }
    return rects;
}

} // namespace

TEST(DamageRegion, MergedRectanglesCoverEveryDamagedPixelWithinTheScreen) {
    struct Case {
        const char* name;
        std::vector<Rect> rects;
        size_t maxRects;
        size_t expectCount;
        Rect screen = {0, 0, 200, 120};
        int64_t slack = 64;
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
        {"scattered rows become one rectangle per band", scatteredBands(), 8, 3, {0, 0, 1920, 1080}, 64 * 64},
        {"a storm becomes its bounding box", storm(), 16, 1, {0, 0, 1024, 768}, 64 * 64},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto merged = mergeRects(c.rects, c.screen, c.maxRects, c.slack);
        EXPECT_EQ(merged.size(), c.expectCount);
        for (const auto& r : merged) {
            EXPECT_FALSE(r.empty());
            EXPECT_TRUE(c.screen.contains(r)) << r.x << "," << r.y << " " << r.width << "x" << r.height;
        }
        const auto damaged = coverage(c.rects, c.screen);
        const auto sent = coverage(merged, c.screen);
        for (size_t i = 0; i < damaged.size(); ++i) {
            ASSERT_TRUE(damaged[i] == 0 || sent[i] > 0) << "pixel " << i % static_cast<size_t>(c.screen.width) << ","
                                                        << i / static_cast<size_t>(c.screen.width) << " lost";
        }
    }
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
        {"left up", PTR_FLAGS_BUTTON1, {{A::Motion, 0, 10, 20}, {A::Release, 1}}},
        {"right down", PTR_FLAGS_DOWN | PTR_FLAGS_BUTTON2, {{A::Motion, 0, 10, 20}, {A::Press, 3}}},
        {"middle down", PTR_FLAGS_DOWN | PTR_FLAGS_BUTTON3, {{A::Motion, 0, 10, 20}, {A::Press, 2}}},
        {"move with click, one motion",
         PTR_FLAGS_MOVE | PTR_FLAGS_DOWN | PTR_FLAGS_BUTTON1 | PTR_FLAGS_BUTTON2,
         {{A::Motion, 0, 10, 20}, {A::Press, 1}, {A::Press, 3}}},
        {"wheel down one notch (-120)",
         PTR_FLAGS_WHEEL | PTR_FLAGS_WHEEL_NEGATIVE | 0x0088,
         {{A::Press, 5}, {A::Release, 5}}},
        {"wheel up two notches",
         PTR_FLAGS_WHEEL | 0x00F0,
         {{A::Press, 4}, {A::Release, 4}, {A::Press, 4}, {A::Release, 4}}},
        {"small turn still one notch", PTR_FLAGS_WHEEL | 0x0010, {{A::Press, 4}, {A::Release, 4}}},
        {"horizontal right", PTR_FLAGS_HWHEEL | 0x0078, {{A::Press, 7}, {A::Release, 7}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(pointerActions(c.flags, 10, 20), c.actions);
    }
    EXPECT_EQ(extendedPointerActions(PTR_XFLAGS_DOWN | PTR_XFLAGS_BUTTON1, 1, 2),
              (std::vector<A>{{A::Motion, 0, 1, 2}, {A::Press, 8}}));
    EXPECT_EQ(extendedPointerActions(PTR_XFLAGS_BUTTON2, 1, 2),
              (std::vector<A>{{A::Motion, 0, 1, 2}, {A::Release, 9}}));
}

TEST(InputMap, KeysAndTheLockKeysFollowTheClientsFlags) {
    struct Key {
        uint16_t flags;
        bool press, extended;
    };
    // A key event without the release flag is a press, also with the "was down" flag of a repeat.
    for (const auto& c : {Key{0, true, false}, Key{KBD_FLAGS_RELEASE | KBD_FLAGS_DOWN, false, false},
                          Key{KBD_FLAGS_EXTENDED | KBD_FLAGS_DOWN, true, true}}) {
        const auto action = keyAction(c.flags, 0x1c);
        EXPECT_EQ(action.press, c.press) << c.flags;
        EXPECT_EQ(action.extended, c.extended) << c.flags;
        EXPECT_EQ(action.scancode, 0x1cu);
    }
    // The keys to tap so that the session's locks match the client's: Caps Lock 0x3a, Num Lock 0x45.
    struct Sync {
        uint32_t flags;
        uint16_t mask;
        std::vector<uint8_t> taps;
    };
    constexpr uint16_t lock = 0x02, mod2 = 0x10, shift = 0x01;
    const Sync syncs[] = {
        {0, 0, {}},
        {KBD_SYNC_CAPS_LOCK, 0, {0x3a}},
        {0, lock, {0x3a}},
        {KBD_SYNC_CAPS_LOCK, lock, {}},
        {KBD_SYNC_NUM_LOCK | KBD_SYNC_CAPS_LOCK, shift, {0x3a, 0x45}},
        {KBD_SYNC_SCROLL_LOCK | KBD_SYNC_KANA_LOCK, shift | lock | mod2, {0x3a, 0x45}},
    };
    for (const auto& c : syncs) {
        EXPECT_EQ(lockKeysToTap(c.flags, c.mask), c.taps) << c.flags << "/" << c.mask;
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
        {u"\U0001F600", {0x0101f600}},
        {std::u16string{0xdc00, u'x'}, {0x78}},                 // a stray low surrogate is dropped
        {std::u16string{0xd83d, u'x'}, {0x78}},                 // a high surrogate without its low one is dropped
        {std::u16string{0xd83d, 0xd83d, 0xde00}, {0x0101f600}}, // the last high surrogate counts
        {u"\t", {0}},                                           // control characters type nothing
        {std::u16string{0x85}, {0}},
        {std::u16string{0xa0}, {0xa0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.keysyms[0]);
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

TEST(CursorShape, MasksAreFlippedUnpremultipliedPaddedAndClipped) {
    CursorImage image;
    image.width = 3;
    image.height = 2;
    // Top row: opaque red, half-transparent white (premultiplied 0x80), transparent. Bottom row: opaque blue...
    image.pixels = {0xffff0000, 0x80808080, 0x00000000, 0xff0000ff, 0xff00ff00, 0x40200000};
    const auto masks = pointerMasks(image);
    ASSERT_EQ(masks.xorMask.size(), 3u * 2 * 4);
    EXPECT_EQ(masks.andMask, std::vector<uint8_t>(4, 0)); // rows of 3 bits padded to 2 bytes
    // Stored bottom row first, BGRA.
    EXPECT_EQ(masks.xorMask, (std::vector<uint8_t>{0xff, 0, 0,    0xff, 0,    0xff, 0,    0xff, 0, 0, 0x80, 0x40,
                                                   0,    0, 0xff, 0xff, 0xff, 0xff, 0xff, 0x80, 0, 0, 0,    0}));
    CursorImage big;
    big.width = 130;
    big.height = 100;
    big.pixels.assign(130u * 100, 0xff112233);
    const auto clipped = pointerMasks(big);
    EXPECT_EQ(clipped.width, 96);
    EXPECT_EQ(clipped.height, 96);
    EXPECT_EQ(clipped.andMask.size(), 12u * 96);
    big.pixels.resize(3); // fewer pixels than the size says: nothing
    EXPECT_TRUE(pointerMasks(big).xorMask.empty());
}

TEST(RdpBusCalls, SignaturesMatchTheInterfaceDescription) {
    const auto described = TestSupport::interfaceMethods();
    for (const auto& m : busMethods()) {
        SCOPED_TRACE(std::string(m.name));
        const auto found = described.find(std::string(m.name));
        ASSERT_NE(found, described.end());
        EXPECT_EQ(found->second, std::make_pair(std::string(m.in), std::string(m.out)));
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

// What the client sends is untrusted: odd lengths, broken surrogates, no terminator, more than the limit.
// The socket listens on IPv6 for both families: an IPv4 client must still be reported as a.b.c.d.
TEST(PeerAddress, MappedIpv4IsPlainIpv6StaysIpv6) {
    struct Case {
        const char* connectTo;
        const char* expected;
    };
    for (const Case& c : {Case{"127.0.0.1", "127.0.0.1"}, Case{"::1", "::1"}}) {
        Utils::UniqueFd listener{socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0)};
        ASSERT_GE(listener.get(), 0);
        const int off = 0;
        ASSERT_EQ(setsockopt(listener.get(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof(off)), 0);
        sockaddr_in6 any{.sin6_family = AF_INET6, .sin6_addr = in6addr_any};
        ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&any), sizeof(any)), 0);
        ASSERT_EQ(listen(listener.get(), 1), 0);
        socklen_t len = sizeof(any);
        ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&any), &len), 0);

        const bool v4 = strchr(c.connectTo, ':') == nullptr;
        Utils::UniqueFd client{socket(v4 ? AF_INET : AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0)};
        sockaddr_in to4{.sin_family = AF_INET, .sin_port = any.sin6_port};
        sockaddr_in6 to6{.sin6_family = AF_INET6, .sin6_port = any.sin6_port};
        ASSERT_EQ(
            v4 ? inet_pton(AF_INET, c.connectTo, &to4.sin_addr) : inet_pton(AF_INET6, c.connectTo, &to6.sin6_addr), 1);
        ASSERT_EQ(v4 ? connect(client.get(), reinterpret_cast<sockaddr*>(&to4), sizeof(to4))
                     : connect(client.get(), reinterpret_cast<sockaddr*>(&to6), sizeof(to6)),
                  0);
        Utils::UniqueFd accepted{accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)};
        EXPECT_EQ(peerAddress(accepted.get()), c.expected) << c.connectTo;
    }
    EXPECT_EQ(peerAddress(-1), "unknown");
}

TEST(ClipboardText, ClientTextBecomesUtf8WithinTheLimit) {
    struct Case {
        const char* name;
        std::vector<uint8_t> data;
        size_t limit;
        std::string expect;
    };
    const Case cases[] = {
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
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(utf16leToUtf8(c.data, c.limit), c.expect);
    }
}

// Well-formedness and the way there and back are left to the fuzz target; here the line ends and the cuts.
TEST(ClipboardText, XTextBecomesTerminatedUtf16WithinTheLimit) {
    struct Case {
        const char* name;
        std::string_view text;
        size_t limit;
        std::u16string expect; // without the terminator
    };
    const Case cases[] = {
        {"LF to CRLF", "a\nb", 100, u"a\r\nb"},
        {"CRLF kept as it is", "a\r\nb", 100, u"a\r\nb"},
        {"invalid lead", "a\xffz", 100, u"a\xfffdz"},
        {"stops at NUL", std::string_view("ab\0c", 4), 100, u"ab"},
        {"limit keeps the terminator", "abcdef", 8, u"abc"},
        {"a pair is not split", "a\xf0\x9f\x98\x80", 6, u"a"},
        {"CRLF is not split", "a\nb", 5, u"a"},
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
    // Bit 24 lets text go to the client, bit 25 to the server, as the daemon stores them.
    const Case cases[] = {
        {0x08000000, 0, false, false, clipboardHardLimit},
        {0x08000000 | (1u << 24), 100, false, true, 100},
        {0x08000000 | (1u << 25), 100, true, false, 100},
        {(1u << 24) | (1u << 25), 0xffffffff, true, true, clipboardHardLimit},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bits);
        const auto policy = clipboardPolicy(c.bits, c.limit);
        EXPECT_EQ(policy.clientToServer, c.toServer);
        EXPECT_EQ(policy.serverToClient, c.toClient);
        EXPECT_EQ(policy.limit, c.expectLimit);
    }
    // The client's format list: Unicode text or nothing.
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
        {"smallest and largest", {{.width = 200, .height = 8192}}, K::Resize, 200, 8192},
        {"one bad among several", {hd, {.width = 100, .height = 100}}, K::Ignore},
        {"seventeen monitors", std::vector<Monitor>(17, hd), K::Ignore},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto request = layoutRequest(c.monitors, 1024, 768);
        EXPECT_EQ(request.kind, c.kind) << request.reason;
        EXPECT_EQ(request.width, c.width);
        EXPECT_EQ(request.height, c.height);
        EXPECT_EQ(request.monitors.size(), c.kind == K::Monitors ? c.monitors.size() : 0);
        EXPECT_EQ(request.reason.empty(), c.kind != K::Ignore);
    }
}

namespace {

// A client's side of the encoder: the updates it sends are decoded onto a canvas as FreeRDP's client does.
struct DecodingPeer {
    rdpContext context{}; // first: the update callbacks get this address
    rdpUpdate update{};
    rdpSettings* settings = freerdp_settings_new(FREERDP_SETTINGS_SERVER_MODE);
    BITMAP_PLANAR_CONTEXT* planar = freerdp_bitmap_planar_context_new(0, 64, 64);
    RFX_CONTEXT* rfx = rfx_context_new(FALSE);
    uint32_t width, height;
    std::vector<uint8_t> canvas;
    size_t updates = 0, largest = 0, begins = 0, ends = 0;
    bool failed = false;

    static DecodingPeer* of(rdpContext* context) { return reinterpret_cast<DecodingPeer*>(context); }
    void sent(size_t bytes) {
        ++updates;
        largest = std::max(largest, bytes);
    }

    DecodingPeer(uint32_t w, uint32_t h, uint32_t depth, bool remoteFx, uint32_t multifrag)
        : width(w), height(h), canvas(size_t{w} * h * 4, 0) {
        settings->DesktopWidth = w;
        settings->DesktopHeight = h;
        settings->ColorDepth = depth;
        settings->RemoteFxCodec = remoteFx;
        settings->SurfaceCommandsEnabled = remoteFx;
        settings->MultifragMaxRequestSize = multifrag;
        rfx_context_set_pixel_format(rfx, PIXEL_FORMAT_BGRX32);
        context.settings = settings;
        context.update = &update;
        update.context = &context;
        update.BitmapUpdate = [](rdpContext* ctx, const BITMAP_UPDATE* bitmap) -> BOOL {
            auto* self = of(ctx);
            size_t bytes = 0;
            for (UINT32 i = 0; i < bitmap->number; ++i) {
                const BITMAP_DATA& b = bitmap->rectangles[i];
                bytes += b.bitmapLength;
                // Planar for compressed 32 bpp, packed rows for uncompressed data.
                const UINT32 format = b.bitsPerPixel == 24   ? PIXEL_FORMAT_BGR24
                                      : b.bitsPerPixel == 16 ? PIXEL_FORMAT_RGB16
                                                             : PIXEL_FORMAT_RGB15;
                const bool ok =
                    b.compressed
                        ? b.bitsPerPixel == 32 &&
                              planar_decompress(self->planar, b.bitmapDataStream, b.bitmapLength, b.width, b.height,
                                                self->canvas.data(), PIXEL_FORMAT_BGRX32, self->width * 4, b.destLeft,
                                                b.destTop, b.width, b.height, TRUE)
                        : b.bitmapLength == b.width * b.height * GetBytesPerPixel(format) &&
                              freerdp_image_copy(self->canvas.data(), PIXEL_FORMAT_BGRX32, self->width * 4, b.destLeft,
                                                 b.destTop, b.width, b.height, b.bitmapDataStream, format,
                                                 b.width * GetBytesPerPixel(format), 0, 0, nullptr,
                                                 FREERDP_FLIP_VERTICAL); // rows bottom up
                self->failed |=
                    !ok || b.destRight != b.destLeft + b.width - 1 || b.destBottom != b.destTop + b.height - 1;
            }
            self->sent(bytes);
            return TRUE;
        };
        update.SurfaceBits = [](rdpContext* ctx, const SURFACE_BITS_COMMAND* cmd) -> BOOL {
            auto* self = of(ctx);
            REGION16 region;
            region16_init(&region);
            self->failed |= !rfx_process_message(self->rfx, cmd->bmp.bitmapData, cmd->bmp.bitmapDataLength,
                                                 cmd->destLeft, cmd->destTop, self->canvas.data(), PIXEL_FORMAT_BGRX32,
                                                 self->width * 4, self->height, &region);
            region16_uninit(&region);
            self->sent(cmd->bmp.bitmapDataLength);
            return TRUE;
        };
        update.SurfaceFrameMarker = [](rdpContext* ctx, const SURFACE_FRAME_MARKER* marker) -> BOOL {
            ++(marker->frameAction == SURFACECMD_FRAMEACTION_BEGIN ? of(ctx)->begins : of(ctx)->ends);
            return TRUE;
        };
    }
    ~DecodingPeer() {
        rfx_context_free(rfx);
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

// Each codec's updates decode to the screen they were taken from, and no update is larger than the client takes
// (its multi-fragment size, or one fast-path PDU's worth without it).
TEST(Encoder, UpdatesDecodeToTheScreenWithinTheClientsLimit) {
    struct Case {
        const char* name;
        uint32_t depth;
        Codec codec;
        uint32_t multifrag;
        std::vector<Rect> rects;
        bool split;    // more than one update
        int tolerance; // per colour channel: the largest error, the mean error for the lossy RemoteFX
    };
    const Rect all{0, 0, 640, 480};
    const Case cases[] = {
        {"planar, no multi-fragment support", 32, Codec::Planar, 0, {all}, true, 0},
        {"planar, a large limit takes it at once", 32, Codec::Planar, 0x400000, {all}, false, 0},
        {"planar, odd rectangles",
         32,
         Codec::Planar,
         0x10000,
         {{3, 5, 17, 9}, {150, 100, 50, 50}, {639, 479, 1, 1}},
         false,
         0},
        {"uncompressed 24 bpp", 24, Codec::Uncompressed, 0x400000, {all}, false, 0},
        {"uncompressed 16 bpp", 16, Codec::Uncompressed, 0, {all}, true, 8},
        {"uncompressed 15 bpp", 15, Codec::Uncompressed, 0x400000, {{5, 7, 100, 70}}, false, 8},
        {"RemoteFX, whole screen", 32, Codec::RemoteFx, 0x400000, {all}, false, 6},
        {"RemoteFX, whole screen in groups", 32, Codec::RemoteFx, 0x40000, {all}, true, 6},
        {"RemoteFX, rectangles in groups",
         32,
         Codec::RemoteFx,
         0x30000,
         {{0, 0, 300, 200}, {350, 250, 290, 230}, {10, 400, 5, 5}},
         true,
         6},
        {"RemoteFX, a character", 32, Codec::RemoteFx, 0x400000, {{100, 100, 8, 16}}, false, 6},
    };
    const auto frame = syntheticScreen(all.width, all.height);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        DecodingPeer peer(all.width, all.height, c.depth, c.codec == Codec::RemoteFx, c.multifrag);
        Encoder encoder(&peer.context, true);
        ASSERT_EQ(encoder.codec(), c.codec);
        ASSERT_TRUE(encoder.send(frame.data(), all.width * 4, all.width, all.height, c.rects));
        EXPECT_FALSE(peer.failed);
        EXPECT_EQ(peer.updates > 1, c.split) << peer.updates << " updates";
        EXPECT_LE(peer.largest, std::max<size_t>(c.multifrag, 0x3f00) - 1024);
        if (c.codec == Codec::RemoteFx) {
            EXPECT_EQ(peer.begins, 1u);
            EXPECT_EQ(peer.ends, 1u);
        }
        int worst = 0;
        double sum = 0, samples = 0;
        for (const auto& r : c.rects) {
            for (int y = r.y; y < r.bottom(); ++y) {
                for (int x = r.x; x < r.right(); ++x) {
                    const size_t at = (static_cast<size_t>(y) * all.width + static_cast<size_t>(x)) * 4;
                    for (size_t k = 0; k < 3; ++k) {
                        const int error = std::abs(int{frame[at + k]} - int{peer.canvas[at + k]});
                        worst = std::max(worst, error);
                        sum += error;
                        ++samples;
                    }
                }
            }
        }
        EXPECT_LE(c.codec == Codec::RemoteFx ? sum / samples : worst, c.tolerance);
    }
}
