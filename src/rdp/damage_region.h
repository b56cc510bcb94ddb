#pragma once

// Screen rectangles of the capture: clipping and merging X DAMAGE's rectangles into a few larger ones, the
// full-width bands the capture reads, and the tiles the bitmap encoders send. Pure functions, any thread.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Vexa::Rdp {

struct Rect {
    int32_t x = 0, y = 0, width = 0, height = 0;

    bool empty() const noexcept { return width <= 0 || height <= 0; }
    int64_t area() const noexcept { return empty() ? 0 : int64_t{width} * height; }
    int32_t right() const noexcept { return x + width; }
    int32_t bottom() const noexcept { return y + height; }
    bool contains(const Rect& other) const noexcept;
    bool operator==(const Rect&) const = default;
};

// The common part; empty (all zero) when they do not meet.
Rect intersect(const Rect& a, const Rect& b) noexcept;
// The smallest rectangle holding both; an empty one does not count.
Rect bounding(const Rect& a, const Rect& b) noexcept;

// Clips the rectangles to the screen and merges them until at most `maxRects` remain. Two rectangles merge
// when their bounding box is at most `slack` pixels larger than the two together (an overlap counted twice, as
// it would be sent twice); more than four times `maxRects` left become one rectangle per band of rows; past
// `maxRects` the pair whose bounding box costs least merges. The result covers every
// clipped input pixel and lies within the screen.
std::vector<Rect> mergeRects(const std::vector<Rect>& rects, const Rect& screen, size_t maxRects,
                             int64_t slack = 64 * 64);

// Rows [y, y + height) of the screen that hold at least one rectangle, as sorted, disjoint bands.
struct Band {
    int32_t y = 0, height = 0;
    bool operator==(const Band&) const = default;
};
std::vector<Band> rowBands(const std::vector<Rect>& rects);

// Splits a rectangle into tiles of at most `tile` x `tile` pixels, row by row from the top left.
std::vector<Rect> tileRect(const Rect& rect, int32_t tile);

} // namespace Vexa::Rdp
