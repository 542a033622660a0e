#pragma once
// What a slave behind a gateway line sent back, judged against the request it answers. A
// slave can send anything: nothing here trusts a byte of it. Both take whole RTU frames
// (address, PDU, CRC): the request as it was sent, and the answer's bytes as they came.
#include <cstddef>
#include <cstdint>

class CGatewayAnswer {
public:
    enum verdict_t {
        ANSWER,    // the request's function, at the length it implies, from the slave asked
        EXCEPTION, // the exception form of the request's function
        BAD_CRC,   // the CRC does not hold
        GARBLED    // a good CRC, but not an answer to this request
    };
    // The answer's end cannot be told from its bytes (function 43, or a code the gateway does
    // not know): it ends with the silence after it.
    static constexpr size_t by_silence = static_cast<size_t>(-1);
    // The longest RTU frame.
    static constexpr size_t max_frame = 256;

    // The whole length of the answer to request that starts with the n bytes at frame; 0
    // while they do not tell yet.
    static size_t frame_length(const uint8_t* request, size_t request_size, const uint8_t* frame,
                               size_t n);
    // The verdict on the whole answer frame of n bytes.
    static verdict_t judge(const uint8_t* request, size_t request_size, const uint8_t* frame,
                           size_t n);
};
