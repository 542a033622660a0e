#pragma once
// What a gateway line has seen of one slave behind it, for the statistics leaves. Plain
// numbers touched by the I/O thread only; response times in microseconds, from a request's
// first byte written to its answer's last byte read.
#include <cstdint>

struct CDownstreamCounters {
    // Requests forwarded to the slave (each once, however often it was tried).
    uint32_t requests = 0;
    // Answers, and exception answers, the slave sent.
    uint32_t answers = 0;
    uint32_t exceptions = 0;
    // Tries that got no answer in time.
    uint32_t timeouts = 0;
    // Answers whose CRC failed, or that did not answer the request (another address or
    // function, a wrong length).
    uint32_t crc_errors = 0;
    uint32_t last_us = 0;
    uint32_t shortest_us = 0;
    uint32_t longest_us = 0;
    uint32_t mean_us = 0;

    void timed(int64_t us) {
        const uint32_t t = us < 0 ? 0 : us > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(us);
        last_us = t;
        if (_timed == 0 || t < shortest_us)
            shortest_us = t;
        if (t > longest_us)
            longest_us = t;
        ++_timed;
        _total_us += t;
        mean_us = static_cast<uint32_t>(_total_us / _timed);
    }

private:
    uint64_t _timed = 0;
    uint64_t _total_us = 0;
};
