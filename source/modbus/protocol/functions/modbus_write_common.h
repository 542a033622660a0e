#pragma once
// Pieces shared by the two write handlers.
#include "modbus/protocol/modbus_pdu.h"
#include "modbus/protocol/modbus_util.h"

#include <cassert>

namespace modbus_write {

// Framing completeness of a write request: single writes need 4 data bytes, multiple
// writes 5 plus the byte count.
inline bool verify_length(const CModbusPdu& pdu, uint8_t single, uint8_t multiple) {
    if (pdu.function == single)
        return pdu.data.size() >= 4;
    assert(pdu.function == multiple);
    (void)multiple;
    return pdu.data.size() > 4 && pdu.data.size() >= 5u + pdu.data[4];
}

// The header of a multiple write: start, quantity and byte count, checked against the
// data that follows. False when the data is malformed.
inline bool read_multiple_header(const CModbusPdu& pdu, uint16_t& start, uint16_t& quantity,
                                 size_t expected_bytes(uint16_t), unsigned max_quantity) {
    if (pdu.data.size() < 5)
        return false;
    iobuf_const_iter_t it = pdu.data.begin();
    start = CModbusUtil::read_u16(it);
    quantity = CModbusUtil::read_u16(it);
    const size_t count = *it;
    return quantity >= 1 && quantity <= max_quantity && count == expected_bytes(quantity) &&
           pdu.data.size() - 5 == count;
}

// The response of a write: single writes echo the request, multiple writes keep start and
// quantity only.
inline void make_response(CModbusPdu& pdu, uint8_t single) {
    if (pdu.function == single) {
        assert(pdu.data.size() == 4);
    } else {
        assert(pdu.data.size() >= 5);
        pdu.data.resize(4);
    }
}

// Whether start + count - 1 stays within the address space (no wrap past 0xFFFF).
inline bool fits(uint16_t start, size_t count) {
    return count >= 1 && count <= 0x10000u - start;
}

} // namespace modbus_write
