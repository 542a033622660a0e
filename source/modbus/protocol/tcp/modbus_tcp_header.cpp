#include "modbus/protocol/tcp/modbus_tcp_header.h"

#include "modbus/protocol/modbus_util.h"

#include <cassert>

parse_result_t CModbusTcpHeader::parse(iobuf_const_iter_t start, iobuf_const_iter_t end) {
    assert(end >= start);
    if (end - start < static_cast<std::ptrdiff_t>(size))
        return parse_result_t(boost::logic::indeterminate, end);
    transaction_id = CModbusUtil::read_u16(start);
    protocol_id = CModbusUtil::read_u16(start);
    length = CModbusUtil::read_u16(start);
    unit_id = *start++;
    return parse_result_t(true, start);
}

void CModbusTcpHeader::serialize(iobuf_t& out) {
    out.resize(out.size() + size);
    auto it = out.end() - size;
    CModbusUtil::write_u16(it, transaction_id);
    CModbusUtil::write_u16(it, protocol_id);
    CModbusUtil::write_u16(it, length);
    *it = unit_id;
}
