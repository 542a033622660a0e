#pragma once
// A Modbus TCP frame: MBAP header and PDU. The header's length field delimits the PDU in a
// stream of received bytes; bytes behind the frame are left for the next parse. A response
// is written from the very object parsed from the request, so the addressing fields echo.
#include "modbus/protocol/modbus_pdu.h"
#include "modbus/protocol/tcp/modbus_tcp_header.h"

class CModbusTcpAdu : public CModbusAdu {
public:
    CModbusTcpHeader header;
    CModbusPdu pdu;

    // false only for a zero length field; a length of 1 (no function code) stays
    // incomplete however many bytes follow.
    parse_result_t parse(iobuf_const_iter_t start, iobuf_const_iter_t end) override;
    // Recomputes the length field from the PDU.
    void serialize(iobuf_t& out) override;
    void err(modbus_err_t code) override;
};
