#pragma once
// What a serial line asks of the code that finds request frames in its bytes: fed one byte
// at a time with the silence before it, it says when a frame is complete. Whatever the line's
// encoding, a frame comes out as the RTU frame of the request (address, PDU, CRC-16 low byte
// first), and an answer in that form goes back through encode(). Knows no clock and no port.
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

class CSerialFramer {
public:
    virtual ~CSerialFramer() = default;

    // One received byte that began gap_us microseconds after the previous byte ended (0 for
    // bytes that arrived together). True when it completed a frame, which frame() then holds
    // until the next call.
    virtual bool feed(uint8_t byte, int64_t gap_us) = 0;
    virtual const std::vector<uint8_t>& frame() const = 0;
    // Forgets any partial frame; the next frame must start as the line's rules say.
    virtual void hunt() = 0;
    // Forgets any partial frame; the next byte may start a frame at once (bytes that waited
    // while an answer was being sent).
    virtual void expect_frame() = 0;
    // True while no frame is under way.
    virtual bool hunting() const = 0;
    // The bytes that put the answer frame (address, PDU, CRC) on the line; they stay valid
    // until the next call. RTU sends the frame as it is.
    virtual std::pair<const uint8_t*, size_t> encode(const uint8_t* frame, size_t n) {
        return {frame, n};
    }
};
