#include "modbus/gateway/gateway_answer.h"

#include "modbus/core/function_code.h"
#include "util/crc16.h"

namespace {

// Function codes whose answers the server does not carry out itself, but whose layout the
// application protocol gives.
constexpr uint8_t FC_READ_EXCEPTION_STATUS = 7;
constexpr uint8_t FC_GET_COMM_EVENT_LOG = 12;
constexpr uint8_t FC_READ_FILE_RECORD = 20;
constexpr uint8_t FC_WRITE_FILE_RECORD = 21;
constexpr uint8_t FC_READ_FIFO_QUEUE = 24;

// Address, function code and CRC around an answer's data.
constexpr size_t frame_overhead = 4;

} // namespace

size_t CGatewayAnswer::frame_length(const uint8_t* request, size_t request_size,
                                    const uint8_t* frame, size_t n) {
    if (n < 2)
        return 0;
    const uint8_t function = frame[1];
    if (function & 0x80)
        return frame_overhead + 1; // the exception code
    switch (function) {
    case FC_READ_COILS:
    case FC_READ_DISCRETE_INPUTS:
    case FC_READ_HOLDING_REGISTERS:
    case FC_READ_INPUT_REGISTERS:
    case FC_GET_COMM_EVENT_LOG:
    case FC_REPORT_SERVER_ID:
    case FC_READ_FILE_RECORD:
    case FC_READ_WRITE_MULTIPLE_REGISTERS:
        // A byte count, then that many bytes.
        return n < 3 ? 0 : frame_overhead + 1 + frame[2];
    case FC_READ_FIFO_QUEUE:
        return n < 4 ? 0 : frame_overhead + 2 + (static_cast<size_t>(frame[2]) << 8 | frame[3]);
    case FC_WRITE_SINGLE_COIL:
    case FC_WRITE_SINGLE_REGISTER:
    case FC_WRITE_MULTIPLE_COILS:
    case FC_WRITE_MULTIPLE_REGISTERS:
    case FC_GET_COMM_EVENT_COUNTER:
        return frame_overhead + 4;
    case FC_MASK_WRITE_REGISTER:
        return frame_overhead + 6;
    case FC_READ_EXCEPTION_STATUS:
        return frame_overhead + 1;
    case FC_DIAGNOSTICS:
    case FC_WRITE_FILE_RECORD:
        // An echo of the request; of another function's request, or of one too short for an
        // answer, the length tells nothing.
        return request != nullptr && request_size > frame_overhead && request[1] == function
                   ? request_size
                   : by_silence;
    default:
        return by_silence;
    }
}

CGatewayAnswer::verdict_t CGatewayAnswer::judge(const uint8_t* request, size_t request_size,
                                                const uint8_t* frame, size_t n) {
    if (n < 2)
        return GARBLED;
    if (!crc16::holds(frame, n))
        return BAD_CRC;
    if (n < frame_overhead + 1 || n > max_frame)
        return GARBLED;
    if (request_size < 2 || frame[0] != request[0])
        return GARBLED;
    const uint8_t function = request[1];
    if (frame[1] == (function | 0x80))
        return n == frame_overhead + 1 ? EXCEPTION : GARBLED;
    if (frame[1] != function)
        return GARBLED;
    const size_t length = frame_length(request, request_size, frame, n);
    return length == by_silence || length == n ? ANSWER : GARBLED;
}
