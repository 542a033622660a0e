#pragma once
// What one transport (a TCP or UDP listener, or one serial line) has seen, for the diagnostics
// function and the statistics leaves. Plain numbers that wrap, touched by the I/O thread
// only; nothing here is ever reset, so that readers may keep their own starting points.
#include <cstdint>

struct CTransportCounters {
    // Requests framed: every complete frame, whatever unit it was for, bad checksums
    // included.
    uint32_t messages = 0;
    // Frames of the right length whose checksum did not hold (serial lines).
    uint32_t checksum_errors = 0;
    // Serial lines with local echo: echoes that differed from what was written.
    uint32_t echo_errors = 0;
    // Requests for a unit id nobody serves (TCP: answered with exception 10).
    uint32_t unknown_units = 0;
    // Connections open now, and opened since start (TCP; a serial line counts its port).
    uint32_t open = 0;
    uint32_t total = 0;
    // Connections closed to admit another at the connection limit (TCP).
    uint32_t evicted = 0;
    // Datagrams that were no request: their MBAP length disagreed with their size (UDP).
    uint32_t dropped = 0;
    // Datagrams not served: from outside the allow list, or over a peer's rate (UDP).
    uint32_t refused = 0;
};
