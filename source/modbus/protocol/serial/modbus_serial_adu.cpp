#include "modbus/protocol/serial/modbus_serial_adu.h"

#include <cassert>

parse_result_t CModbusSerialAdu::parse(iobuf_const_iter_t start, iobuf_const_iter_t end) {
    assert(end >= start);
    if (end - start <= 2)
        return parse_result_t(boost::logic::indeterminate, end);
    address = start[0];
    const iobuf_const_iter_t icrc = end - 2;
    parse_result_t retval = crc.parse(icrc, end);
    assert(is_complete(retval));
    retval = pdu.parse(start + 1, icrc);
    assert(retval.second <= icrc);
    retval.second = end;
    return retval;
}

void CModbusSerialAdu::serialize(iobuf_t& out) {
    crc.update(*this);
    out.push_back(address);
    pdu.serialize(out);
    crc.serialize(out);
}
