#include "modbus/protocol/tcp/modbus_tcp_adu.h"

#include "util/log.h"

#include <cassert>

parse_result_t CModbusTcpAdu::parse(iobuf_const_iter_t start, iobuf_const_iter_t end) {
    assert(end >= start);
    parse_result_t retval = header.parse(start, end);
    assert(retval.second <= end);
    if (!is_complete(retval))
        return retval;
    const iobuf_const_iter_t header_end = retval.second;
    if (header.length == 0)
        return parse_result_t(false, header_end);
    const uint16_t pdu_len = static_cast<uint16_t>(header.length - 1);
    if (end - header_end < static_cast<std::ptrdiff_t>(pdu_len))
        return parse_result_t(boost::logic::indeterminate, end);
    const iobuf_const_iter_t pdu_end = header_end + pdu_len;
    retval = pdu.parse(header_end, pdu_end);
    assert(retval.second <= pdu_end);
    return retval;
}

void CModbusTcpAdu::serialize(iobuf_t& out) {
    header.length = static_cast<uint16_t>(pdu.length() + 1);
    header.serialize(out);
    pdu.serialize(out);
}

void CModbusTcpAdu::err(modbus_err_t code) {
    LOG_DEBUG(SS_TCP_PROTOCOL, 6, "Formatting error response (code 0x%x)", code);
    pdu.err(code);
}
