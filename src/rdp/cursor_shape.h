#pragma once

// An X cursor image as the masks of an RDP 32 bpp colour pointer. Pure, any thread.

#include <cstdint>
#include <vector>

#include "rdp/x_display.h"

namespace Vexa::Rdp {

struct PointerMasks {
    uint16_t width = 0, height = 0;
    // 32 bpp BGRA, bottom row first.
    std::vector<uint8_t> xorMask;
    // 1 bpp, rows padded to 2 bytes, bottom row first; all clear (the alpha channel carries the shape).
    std::vector<uint8_t> andMask;
};

// Clips the image to `maxSide` on each side (RDP pointers are at most 96 x 96 without the large pointer
// capability) and flips it; alpha is undone from X's premultiplied form. Empty masks for an empty image.
PointerMasks pointerMasks(const CursorImage& image, uint16_t maxSide = 96);

} // namespace Vexa::Rdp
