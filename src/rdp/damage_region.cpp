#include "rdp/damage_region.h"

#include <algorithm>
#include <limits>

namespace Vexa::Rdp {

bool Rect::contains(const Rect& other) const noexcept {
    return other.x >= x && other.y >= y && other.right() <= right() && other.bottom() <= bottom();
}

Rect intersect(const Rect& a, const Rect& b) noexcept {
    const int32_t left = std::max(a.x, b.x);
    const int32_t top = std::max(a.y, b.y);
    const int32_t right = std::min(a.right(), b.right());
    const int32_t bottom = std::min(a.bottom(), b.bottom());
    if (right <= left || bottom <= top) {
        return {};
    }
    return {left, top, right - left, bottom - top};
}

Rect bounding(const Rect& a, const Rect& b) noexcept {
    if (a.empty()) {
        return b;
    }
    if (b.empty()) {
        return a;
    }
    const int32_t left = std::min(a.x, b.x);
    const int32_t top = std::min(a.y, b.y);
    return {left, top, std::max(a.right(), b.right()) - left, std::max(a.bottom(), b.bottom()) - top};
}

namespace {

// Pixels the bounding box of the two costs beyond sending both as they are (their overlap sent twice then).
int64_t waste(const Rect& a, const Rect& b) noexcept {
    return bounding(a, b).area() - (a.area() + b.area());
}

} // namespace

std::vector<Rect> mergeRects(const std::vector<Rect>& rects, const Rect& screen, size_t maxRects, int64_t slack) {
    std::vector<Rect> out;
    out.reserve(rects.size());
    for (const auto& rect : rects) {
        const Rect clipped = intersect(rect, screen);
        if (!clipped.empty()) {
            out.push_back(clipped);
        }
    }
    maxRects = std::max<size_t>(maxRects, 1);
    // The pairwise merge is quadratic per pass: a storm of tiny rectangles becomes their bounding box first.
    if (out.size() > 512) {
        Rect all;
        for (const auto& rect : out) {
            all = bounding(all, rect);
        }
        return {all};
    }
    // Passes until nothing merges; within a pass a rectangle keeps absorbing the ones after it while it grows.
    bool merged = true;
    while (merged) {
        merged = false;
        for (size_t i = 0; i < out.size(); ++i) {
            for (size_t j = i + 1; j < out.size();) {
                if (out[i].contains(out[j]) || out[j].contains(out[i]) || waste(out[i], out[j]) <= slack) {
                    out[i] = bounding(out[i], out[j]);
                    out.erase(out.begin() + static_cast<std::ptrdiff_t>(j));
                    merged = true;
                    j = i + 1;
                } else {
                    ++j;
                }
            }
        }
    }
    // Many left: one rectangle per band of rows first, so that the pairwise search below stays small.
    if (out.size() > 4 * maxRects) {
        std::vector<Rect> banded;
        for (const auto& band : rowBands(out)) {
            Rect box;
            for (const auto& rect : out) {
                if (rect.y >= band.y && rect.bottom() <= band.y + band.height) {
                    box = bounding(box, rect);
                }
            }
            banded.push_back(box);
        }
        out = std::move(banded);
    }
    while (out.size() > maxRects) {
        size_t bestI = 0, bestJ = 1;
        int64_t best = std::numeric_limits<int64_t>::max();
        for (size_t i = 0; i < out.size(); ++i) {
            for (size_t j = i + 1; j < out.size(); ++j) {
                if (const int64_t w = waste(out[i], out[j]); w < best) {
                    best = w;
                    bestI = i;
                    bestJ = j;
                }
            }
        }
        out[bestI] = bounding(out[bestI], out[bestJ]);
        out.erase(out.begin() + static_cast<std::ptrdiff_t>(bestJ));
    }
    return out;
}

std::vector<Band> rowBands(const std::vector<Rect>& rects) {
    std::vector<Band> spans;
    for (const auto& rect : rects) {
        if (!rect.empty()) {
            spans.push_back({rect.y, rect.height});
        }
    }
    std::sort(spans.begin(), spans.end(), [](const Band& a, const Band& b) { return a.y < b.y; });
    std::vector<Band> out;
    for (const auto& span : spans) {
        if (!out.empty() && span.y <= out.back().y + out.back().height) {
            const int32_t bottom = std::max(out.back().y + out.back().height, span.y + span.height);
            out.back().height = bottom - out.back().y;
        } else {
            out.push_back(span);
        }
    }
    return out;
}

std::vector<Rect> tileRect(const Rect& rect, int32_t tile) {
    std::vector<Rect> out;
    if (rect.empty() || tile <= 0) {
        return out;
    }
    for (int32_t y = rect.y; y < rect.bottom(); y += tile) {
        for (int32_t x = rect.x; x < rect.right(); x += tile) {
            out.push_back({x, y, std::min(tile, rect.right() - x), std::min(tile, rect.bottom() - y)});
        }
    }
    return out;
}

} // namespace Vexa::Rdp
