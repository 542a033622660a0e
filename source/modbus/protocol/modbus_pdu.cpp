#include "modbus/protocol/modbus_pdu.h"

#include <cassert>

parse_result_t CModbusPdu::parse(iobuf_const_iter_t start, iobuf_const_iter_t end) {
    assert(end >= start);
    if (start == end)
        return parse_result_t(boost::logic::indeterminate, end);
    function = *start;
    data.assign(start + 1, end);
    return parse_result_t(true, end);
}

void CModbusPdu::serialize(iobuf_t& out) {
    out.push_back(function);
    out.insert(out.end(), data.begin(), data.end());
}

void CModbusPdu::err(modbus_err_t code) {
    assert(code != MB_NO_ERROR);
    function |= 0x80;
    data.assign(1, code);
}
