// The transport's encoding cost: what sending a whole screen and a typed character costs with each codec the
// transport picks (RemoteFX, planar, uncompressed 16 bpp), through the transport's own Encoder (tiling, batching,
// codec calls) with the updates counted instead of sent. A screen of text-like content; prints milliseconds and
// bytes per update and asserts nothing.
//
//   build/bench/vexa_bench_rdp_encode [WIDTH HEIGHT [ROUNDS]]

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <freerdp/codec/color.h>
#include <freerdp/freerdp.h>
#include <freerdp/settings.h>
#include <freerdp/update.h>

#include "common/logger.h"
#include "rdp/damage_region.h"
#include "rdp/encoder.h"

using namespace Vexa::Rdp;

namespace {

struct CountingPeer {
    rdpContext context{}; // first: the update callbacks get this address
    rdpUpdate update{};
    rdpSettings* settings = freerdp_settings_new(FREERDP_SETTINGS_SERVER_MODE);
    size_t bytes = 0;

    CountingPeer(uint32_t width, uint32_t height, uint32_t depth, bool remoteFx) {
        settings->DesktopWidth = width;
        settings->DesktopHeight = height;
        settings->ColorDepth = depth;
        settings->RemoteFxCodec = remoteFx;
        settings->SurfaceCommandsEnabled = remoteFx;
        settings->MultifragMaxRequestSize = 0x300000;
        context.settings = settings;
        context.update = &update;
        update.context = &context;
        update.BitmapUpdate = [](rdpContext* ctx, const BITMAP_UPDATE* bitmap) -> BOOL {
            for (UINT32 i = 0; i < bitmap->number; ++i) {
                reinterpret_cast<CountingPeer*>(ctx)->bytes += bitmap->rectangles[i].bitmapLength;
            }
            return TRUE;
        };
        update.SurfaceBits = [](rdpContext* ctx, const SURFACE_BITS_COMMAND* cmd) -> BOOL {
            reinterpret_cast<CountingPeer*>(ctx)->bytes += cmd->bmp.bitmapDataLength;
            return TRUE;
        };
        update.SurfaceFrameMarker = [](rdpContext*, const SURFACE_FRAME_MARKER*) -> BOOL { return TRUE; };
    }
    ~CountingPeer() { freerdp_settings_free(settings); }
};

std::vector<uint8_t> textScreen(uint32_t width, uint32_t height) {
    std::vector<uint8_t> frame(size_t{width} * height * 4, 0xff);
    uint32_t seed = 7;
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            seed = seed * 1103515245 + 12345;
            // Rows of "glyphs" on white, a blue title bar.
            const bool ink = (y % 16) < 11 && (x % 8) < 6 && ((seed >> 16) % 3) == 0 && ((y / 16) % 4) != 3;
            uint8_t* p = &frame[(size_t{y} * width + x) * 4];
            if (y < 24) {
                p[0] = 0xc0, p[1] = 0x60, p[2] = 0x20;
            } else if (ink) {
                p[0] = p[1] = p[2] = 0;
            }
        }
    }
    return frame;
}

} // namespace

int main(int argc, char** argv) {
    Vexa::Syslog::setDebugLevel(Vexa::DebugLevel::Silent);
    const uint32_t width = argc > 2 ? static_cast<uint32_t>(std::atoi(argv[1])) : 1920;
    const uint32_t height = argc > 2 ? static_cast<uint32_t>(std::atoi(argv[2])) : 1080;
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 20;
    const auto frame = textScreen(width, height);
    struct Row {
        const char* name;
        uint32_t depth;
        bool remoteFx;
    };
    std::printf("screen %ux%u, %d rounds each; ms and bytes per update (median of rounds)\n", width, height, rounds);
    for (const auto& row :
         {Row{"RemoteFX", 32, true}, Row{"planar 32 bpp", 32, false}, Row{"uncompressed 16 bpp", 16, false}}) {
        for (const auto& [what, rect] :
             {std::pair{"whole screen", Rect{0, 0, static_cast<int32_t>(width), static_cast<int32_t>(height)}},
              std::pair{"one character", Rect{400, 300, 8, 16}}}) {
            CountingPeer peer(width, height, row.depth, row.remoteFx);
            Encoder encoder(&peer.context, true);
            std::vector<double> times;
            size_t bytes = 0;
            for (int i = 0; i < rounds; ++i) {
                peer.bytes = 0;
                const auto start = std::chrono::steady_clock::now();
                encoder.send(frame.data(), width * 4, width, height, {rect});
                times.push_back(
                    std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
                bytes = peer.bytes;
            }
            std::sort(times.begin(), times.end());
            std::printf("%-22s %-14s %9.3f ms %10zu bytes  (%s)\n", row.name, what, times[times.size() / 2], bytes,
                        codecName(encoder.codec()));
        }
    }
    // Merging a burst of damage rectangles, as a scrolling terminal makes them.
    std::vector<Rect> burst;
    for (int i = 0; i < 400; ++i) {
        burst.push_back({(i * 37) % static_cast<int32_t>(width), (i * 16) % static_cast<int32_t>(height), 8, 16});
    }
    const auto start = std::chrono::steady_clock::now();
    size_t merged = 0;
    for (int i = 0; i < rounds; ++i) {
        merged = mergeRects(burst, {0, 0, static_cast<int32_t>(width), static_cast<int32_t>(height)}, 16).size();
    }
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    std::printf("mergeRects: 400 rectangles into %zu in %.3f ms\n", merged, ms / rounds);
    return 0;
}
