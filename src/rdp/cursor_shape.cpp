#include "rdp/cursor_shape.h"

#include <algorithm>

namespace Vexa::Rdp {

PointerMasks pointerMasks(const CursorImage& image, uint16_t maxSide) {
    PointerMasks masks;
    if (image.width == 0 || image.height == 0 || image.pixels.size() < size_t{image.width} * image.height) {
        return masks;
    }
    masks.width = std::min(image.width, maxSide);
    masks.height = std::min(image.height, maxSide);
    masks.xorMask.resize(size_t{masks.width} * masks.height * 4);
    const size_t andStride = ((size_t{masks.width} + 15) / 16) * 2;
    masks.andMask.assign(andStride * masks.height, 0);
    for (uint16_t row = 0; row < masks.height; ++row) {
        const uint32_t* src = image.pixels.data() + size_t{row} * image.width;
        uint8_t* dst = masks.xorMask.data() + static_cast<size_t>(masks.height - 1 - row) * masks.width * 4;
        for (uint16_t col = 0; col < masks.width; ++col) {
            const uint32_t argb = src[col];
            const uint32_t alpha = argb >> 24;
            auto channel = [alpha](uint32_t premultiplied) -> uint8_t {
                if (alpha == 0) {
                    return 0;
                }
                return static_cast<uint8_t>(std::min<uint32_t>(255, (premultiplied * 255 + alpha / 2) / alpha));
            };
            dst[col * 4 + 0] = channel(argb & 0xff);
            dst[col * 4 + 1] = channel((argb >> 8) & 0xff);
            dst[col * 4 + 2] = channel((argb >> 16) & 0xff);
            dst[col * 4 + 3] = static_cast<uint8_t>(alpha);
        }
    }
    return masks;
}

} // namespace Vexa::Rdp
