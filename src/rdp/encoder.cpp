#include "rdp/encoder.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

#include <freerdp/codec/color.h>
#include <freerdp/constants.h>
#include <freerdp/update.h>
#include <winpr/stream.h>

#include "common/logger.h"

namespace Vexa::Rdp {

namespace {

constexpr int32_t tileSide = 64;
// One fast-path update fits this without the client's multi-fragment support.
constexpr size_t singlePduSize = 0x3f00;
// Room for the update's own headers.
constexpr size_t headerRoom = 1024;

// Bitmaps of the RDP bitmap update start on 4-pixel columns and are a multiple of 4 pixels wide, where the screen
// allows it.
Rect alignColumns(const Rect& rect, int32_t screenWidth) {
    const int32_t left = rect.x & ~3;
    int32_t right = (rect.right() + 3) & ~3;
    if (right > screenWidth) {
        right = screenWidth;
    }
    return {left, rect.y, right - left, rect.height};
}

// The most a RemoteFX message of these rectangles can take: every 64 x 64 tile they touch at its worst
// (three channels of 4096 coefficients at two bytes each: a wide margin over what RLGR makes), and the headers.
size_t worstRemoteFxSize(const std::vector<Rect>& rects) {
    constexpr size_t tileWorst = 3 * 4096 * 2 + 64;
    size_t tiles = 0;
    for (const auto& rect : rects) {
        const int32_t columns = (rect.right() + tileSide - 1) / tileSide - rect.x / tileSide;
        const int32_t rows = (rect.bottom() + tileSide - 1) / tileSide - rect.y / tileSide;
        tiles += static_cast<size_t>(std::max(columns, 0)) * static_cast<size_t>(std::max(rows, 0));
    }
    return tiles * tileWorst + 4096;
}

} // namespace

const char* codecName(Codec codec) noexcept {
    switch (codec) {
    case Codec::RemoteFx:
        return "RemoteFX";
    case Codec::Planar:
        return "planar";
    case Codec::Uncompressed:
        return "uncompressed";
    }
    return "unknown";
}

Encoder::Encoder(rdpContext* ctx, bool allowRemoteFx) : context(ctx) {
    rdpSettings* settings = context->settings;
    stream = Stream_New(nullptr, size_t{64} * 1024);
    if (!stream) {
        throw std::runtime_error("Stream_New failed");
    }
    if (allowRemoteFx && settings->RemoteFxCodec && settings->SurfaceCommandsEnabled) {
        rfx = rfx_context_new(TRUE);
        if (!rfx) {
            throw std::runtime_error("rfx_context_new failed");
        }
        rfx->mode = static_cast<RLGR_MODE>(settings->RemoteFxCodecMode);
        rfx_context_set_pixel_format(rfx, PIXEL_FORMAT_BGRX32);
        if (!rfx_context_reset(rfx, settings->DesktopWidth, settings->DesktopHeight)) {
            throw std::runtime_error("rfx_context_reset failed");
        }
        codec_ = Codec::RemoteFx;
        bpp = 32;
        return;
    }
    if (settings->ColorDepth == 32) {
        planar =
            freerdp_bitmap_planar_context_new(PLANAR_FORMAT_HEADER_RLE | PLANAR_FORMAT_HEADER_NA, tileSide, tileSide);
        if (!planar) {
            throw std::runtime_error("freerdp_bitmap_planar_context_new failed");
        }
        codec_ = Codec::Planar;
        bpp = 32;
        return;
    }
    codec_ = Codec::Uncompressed;
    switch (settings->ColorDepth) {
    case 24:
        bpp = 24;
        rawFormat = PIXEL_FORMAT_BGR24;
        break;
    case 15:
        bpp = 15;
        rawFormat = PIXEL_FORMAT_RGB15;
        break;
    default:
        // 16, and 8 (which would need a palette of our own) gets 16 too.
        bpp = 16;
        rawFormat = PIXEL_FORMAT_RGB16;
        break;
    }
}

Encoder::~Encoder() {
    if (rfx) {
        rfx_context_free(rfx);
    }
    if (planar) {
        freerdp_bitmap_planar_context_free(planar);
    }
    Stream_Free(stream, TRUE);
}

void Encoder::resize(uint32_t width, uint32_t height) {
    if (rfx) {
        rfx_context_reset(rfx, width, height);
    }
}

size_t Encoder::maxUpdateSize() const noexcept {
    const size_t multifrag = context->settings->MultifragMaxRequestSize;
    return std::max(multifrag, singlePduSize) - headerRoom;
}

bool Encoder::send(const uint8_t* frame, uint32_t stride, uint32_t width, uint32_t height,
                   const std::vector<Rect>& rects) {
    if (rects.empty()) {
        return true;
    }
    const bool ok = codec_ == Codec::RemoteFx ? sendRemoteFx(frame, stride, width, height, rects)
                                              : sendBitmaps(frame, stride, width, height, rects);
    if (ok) {
        ++frames;
    }
    return ok;
}

bool Encoder::sendRemoteFx(const uint8_t* frame, uint32_t stride, uint32_t width, uint32_t height,
                           const std::vector<Rect>& rects) {
    rdpUpdate* update = context->update;
    const SURFACE_FRAME_MARKER begin{SURFACECMD_FRAMEACTION_BEGIN, ++frameId};
    bool ok = update->SurfaceFrameMarker(context, &begin);
    auto sendStream = [&]() {
        SURFACE_BITS_COMMAND cmd{};
        cmd.cmdType = CMDTYPE_STREAM_SURFACE_BITS;
        cmd.destRight = width;
        cmd.destBottom = height;
        cmd.bmp.bpp = 32;
        cmd.bmp.codecID = static_cast<UINT16>(context->settings->RemoteFxCodecId);
        cmd.bmp.width = static_cast<UINT16>(width);
        cmd.bmp.height = static_cast<UINT16>(height);
        cmd.bmp.bitmapDataLength = static_cast<UINT32>(Stream_GetPosition(stream));
        cmd.bmp.bitmapData = Stream_Buffer(stream);
        bytes += cmd.bmp.bitmapDataLength;
        return update->SurfaceBits(context, &cmd) != FALSE;
    };
    // Messages whose worst case fits the client's limit: the rectangles as they are when they fit together, else
    // groups of bands of them. (FreeRDP's own splitting, rfx_encode_messages_ex, loses a few bytes on every
    // call in 2.11: it is left to pieces that alone exceed a small limit.)
    const size_t limit = maxUpdateSize();
    std::vector<std::vector<Rect>> groups;
    if (worstRemoteFxSize(rects) <= limit) {
        groups.push_back(rects);
    } else {
        std::vector<Rect> group;
        for (const auto& rect : rects) {
            // Bands one row of the codec's tile grid high, so that no tile is encoded twice.
            std::vector<Rect> bands;
            for (int32_t y = rect.y; y < rect.bottom();) {
                const int32_t next = std::min(rect.bottom(), (y / tileSide + 1) * tileSide);
                bands.push_back({rect.x, y, rect.width, next - y});
                y = next;
            }
            for (const auto& piece : bands) {
                group.push_back(piece);
                if (group.size() > 1 && worstRemoteFxSize(group) > limit) {
                    group.pop_back();
                    groups.push_back(std::move(group));
                    group = {piece};
                }
            }
        }
        if (!group.empty()) {
            groups.push_back(std::move(group));
        }
    }
    for (const auto& group : groups) {
        if (ok) {
            ok = sendRemoteFxMessages(frame, stride, width, height, group, sendStream);
        }
    }
    const SURFACE_FRAME_MARKER end{SURFACECMD_FRAMEACTION_END, frameId};
    return update->SurfaceFrameMarker(context, &end) && ok;
}

bool Encoder::sendRemoteFxMessages(const uint8_t* frame, uint32_t stride, uint32_t width, uint32_t height,
                                   const std::vector<Rect>& rects, const std::function<bool()>& sendStream) {
    std::vector<RFX_RECT> rfxRects;
    rfxRects.reserve(rects.size());
    for (const auto& rect : rects) {
        rfxRects.push_back({static_cast<UINT16>(rect.x), static_cast<UINT16>(rect.y), static_cast<UINT16>(rect.width),
                            static_cast<UINT16>(rect.height)});
    }
    // A written message is never thrown away: the first one carries the codec's headers.
    if (worstRemoteFxSize(rects) <= maxUpdateSize()) {
        RFX_MESSAGE* message = rfx_encode_message(rfx, rfxRects.data(), rfxRects.size(), frame, width, height, stride);
        if (!message) {
            Syslog::error("%s: %s failed", "Encoder::sendRemoteFx", "rfx_encode_message");
            return false;
        }
        Stream_SetPosition(stream, 0);
        const bool ok = rfx_write_message(rfx, stream, message) && sendStream();
        // FreeRDP 2.11 copies the rectangles into the message without marking them its own to free.
        if (!message->freeRects && message->rects != rfxRects.data()) {
            free(message->rects);
            message->rects = nullptr;
        }
        rfx_message_free(rfx, message);
        return ok;
    }
    size_t count = 0;
    RFX_MESSAGE* messages = rfx_encode_messages_ex(rfx, rfxRects.data(), rfxRects.size(), frame, width, height, stride,
                                                   &count, maxUpdateSize());
    if (!messages) {
        Syslog::error("%s: %s failed", "Encoder::sendRemoteFx", "rfx_encode_messages_ex");
        return false;
    }
    bool ok = true;
    for (size_t i = 0; i < count; ++i) {
        if (ok) {
            Stream_SetPosition(stream, 0);
            ok = rfx_write_message(rfx, stream, &messages[i]) && sendStream();
        }
        rfx_message_free(rfx, &messages[i]);
    }
    free(messages);
    return ok;
}

bool Encoder::sendBitmaps(const uint8_t* frame, uint32_t stride, uint32_t width, uint32_t height,
                          const std::vector<Rect>& rects) {
    const Rect screen{0, 0, static_cast<int32_t>(width), static_cast<int32_t>(height)};
    const size_t limit = maxUpdateSize();
    std::vector<BITMAP_DATA> batch;
    std::vector<BYTE*> buffers;
    size_t batchBytes = 0;
    bool ok = true;

    auto flush = [&]() {
        if (!batch.empty() && ok) {
            BITMAP_UPDATE update{};
            update.count = update.number = static_cast<UINT32>(batch.size());
            update.rectangles = batch.data();
            ok = context->update->BitmapUpdate(context, &update);
        }
        for (BYTE* buffer : buffers) {
            free(buffer);
        }
        batch.clear();
        buffers.clear();
        batchBytes = 0;
    };

    for (const auto& rect : rects) {
        for (const auto& tile : tileRect(intersect(alignColumns(rect, screen.width), screen), tileSide)) {
            const uint8_t* src = frame + static_cast<size_t>(tile.y) * stride + static_cast<size_t>(tile.x) * 4;
            BYTE* data = nullptr;
            UINT32 size = 0;
            if (codec_ == Codec::Planar) {
                data = freerdp_bitmap_compress_planar(planar, src, PIXEL_FORMAT_BGRX32, tile.width, tile.height, stride,
                                                      nullptr, &size);
            } else {
                // Rows bottom up, as many bytes as the pixels take: the tiles are a multiple of 4 pixels wide,
                // so the rows are 4-byte aligned as well.
                const UINT32 step = static_cast<UINT32>(tile.width) * ((bpp + 7) / 8);
                size = step * static_cast<UINT32>(tile.height);
                data = static_cast<BYTE*>(malloc(size));
                // Row by row: FreeRDP 2.11's vertical flip reads outside a source taken at an offset.
                for (int32_t row = 0; data && row < tile.height; ++row) {
                    if (!freerdp_image_copy(data + static_cast<size_t>(tile.height - 1 - row) * step, rawFormat, step,
                                            0, 0, tile.width, 1, frame, PIXEL_FORMAT_BGRX32, stride, tile.x,
                                            tile.y + row, nullptr, FREERDP_FLIP_NONE)) {
                        free(data);
                        data = nullptr;
                    }
                }
            }
            if (!data) {
                Syslog::error("%s: %s failed, tile: %dx%d+%d+%d", "Encoder::sendBitmaps", codecName(codec_), tile.width,
                              tile.height, tile.x, tile.y);
                flush();
                return false;
            }
            if (batchBytes + size > limit) {
                flush();
            }
            BITMAP_DATA bitmap{};
            bitmap.destLeft = tile.x;
            bitmap.destTop = tile.y;
            bitmap.destRight = tile.right() - 1;
            bitmap.destBottom = tile.bottom() - 1;
            bitmap.width = tile.width;
            bitmap.height = tile.height;
            bitmap.bitsPerPixel = bpp;
            bitmap.compressed = codec_ == Codec::Planar;
            bitmap.bitmapLength = size;
            bitmap.bitmapDataStream = data;
            bitmap.cbScanWidth = tile.width * ((bpp + 7) / 8);
            bitmap.cbUncompressedSize = bitmap.cbScanWidth * tile.height;
            bitmap.cbCompMainBodySize = size;
            batch.push_back(bitmap);
            buffers.push_back(data);
            batchBytes += size;
            bytes += size;
        }
    }
    flush();
    return ok;
}

} // namespace Vexa::Rdp
