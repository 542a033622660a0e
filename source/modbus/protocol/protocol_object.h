#pragma once
// Base of every frame part that parses itself from received bytes and appends itself to an
// output buffer, with the three-valued parse result they all return.
#include "util/iobuf.h"

#include <boost/logic/tribool.hpp>

#include <cstdint>
#include <utility>

// first: true = a whole object was parsed, indeterminate = more bytes are needed,
// false = the bytes cannot form a valid object. second: how far bytes were consumed (the
// end of the range when incomplete, so that the caller keeps every byte).
typedef std::pair<boost::logic::tribool, iobuf_const_iter_t> parse_result_t;

inline bool is_complete(const parse_result_t& r) {
    return r.first.value == boost::logic::tribool::true_value;
}
inline bool is_incomplete(const parse_result_t& r) {
    return boost::logic::indeterminate(r.first);
}
inline bool is_bad(const parse_result_t& r) {
    return r.first.value == boost::logic::tribool::false_value;
}

// Modbus exception codes; the values go on the wire unchanged.
enum modbus_err_t : uint8_t {
    MB_NO_ERROR = 0,
    MB_ILLEGAL_FUNCTION = 1,
    MB_ILLEGAL_DATA_ADDRESS = 2,
    MB_ILLEGAL_DATA_VALUE = 3,
    MB_SLAVE_DEVICE_FAILURE = 4,
    MB_ACKNOWLEDGE = 5,
    MB_SLAVE_DEVICE_BUSY = 6,
    MB_MEMORY_PARITY_ERROR = 8,
    MB_GATEWAY_PATH_UNAVAILABLE = 10,
    MB_GATEWAY_TARGET_FAILED = 11,
};

class CProtocolObject {
public:
    CProtocolObject() = default;
    CProtocolObject(const CProtocolObject&) = default;
    CProtocolObject& operator=(const CProtocolObject&) = default;
    virtual ~CProtocolObject() = default;
    // Parses [start, end); a container hands each part exactly its own sub-range.
    virtual parse_result_t parse(iobuf_const_iter_t start, iobuf_const_iter_t end) = 0;
    // Appends the wire form to out.
    virtual void serialize(iobuf_t& out) = 0;
};

// Base of the two ADU kinds (TCP and RTU).
class CModbusAdu : public CProtocolObject {
public:
    // Turns the contained PDU into an exception response; addressing stays as it was.
    virtual void err(modbus_err_t code) = 0;
};
