#pragma once

// Sends screen rectangles to one RDP client: RemoteFX surface bits framed by frame markers when the client
// announced RemoteFX and surface commands, planar bitmap updates to 32 bpp clients otherwise, and uncompressed
// bitmaps at the client's depth to the others. (FreeRDP 2.11's interleaved RLE encoder does not decode back to
// its input at 24 bpp, nor always at 16 bpp: see the encoder's unit tests.) Bound to the event loop's thread.

#include <cstdint>
#include <functional>
#include <vector>

#include <freerdp/codec/planar.h>
#include <freerdp/codec/rfx.h>
#include <freerdp/freerdp.h>

#include "rdp/damage_region.h"

namespace Vexa::Rdp {

enum class Codec { RemoteFx, Planar, Uncompressed };
const char* codecName(Codec codec) noexcept;

class Encoder {
public:
    // Chooses the codec from the client's settings as they stand after the capability exchange.
    Encoder(rdpContext* context, bool allowRemoteFx);
    ~Encoder();
    Encoder(const Encoder&) = delete;
    Encoder& operator=(const Encoder&) = delete;

    Codec codec() const noexcept { return codec_; }
    // The screen size changed (the client was told with a desktop resize).
    void resize(uint32_t width, uint32_t height);
    // Encodes the rectangles of the frame buffer (BGRX, `stride` bytes a row) and sends them; false when the
    // connection refused an update.
    bool send(const uint8_t* frame, uint32_t stride, uint32_t width, uint32_t height, const std::vector<Rect>& rects);

    uint64_t framesSent() const noexcept { return frames; }
    uint64_t bytesSent() const noexcept { return bytes; }

private:
    bool sendRemoteFx(const uint8_t* frame, uint32_t stride, uint32_t width, uint32_t height,
                      const std::vector<Rect>& rects);
    // One group of rectangles as RemoteFX message(s), each handed to `sendStream` from the encoder's stream.
    bool sendRemoteFxMessages(const uint8_t* frame, uint32_t stride, uint32_t width, uint32_t height,
                              const std::vector<Rect>& rects, const std::function<bool()>& sendStream);
    bool sendBitmaps(const uint8_t* frame, uint32_t stride, uint32_t width, uint32_t height,
                     const std::vector<Rect>& rects);
    // The most a single update PDU may carry for this client.
    size_t maxUpdateSize() const noexcept;

    rdpContext* context;
    Codec codec_ = Codec::Planar;
    uint32_t bpp = 32;
    RFX_CONTEXT* rfx = nullptr;
    BITMAP_PLANAR_CONTEXT* planar = nullptr;
    uint32_t rawFormat = 0;
    wStream* stream = nullptr;
    uint32_t frameId = 0;
    uint64_t frames = 0, bytes = 0;
};

} // namespace Vexa::Rdp
