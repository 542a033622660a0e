#pragma once
// The 7-byte MBAP header of a Modbus TCP frame. Parsing validates nothing: the protocol
// id and the length are judged by the ADU and the TCP handler.
#include "modbus/modbus_types.h"
#include "modbus/protocol/protocol_object.h"

class CModbusTcpHeader : public CProtocolObject {
public:
    static constexpr size_t size = 7;

    uint16_t transaction_id = 0;
    uint16_t protocol_id = 0;
    uint16_t length = 0; // bytes after this field: unit id + PDU
    unit_id_t unit_id = 0;

    // (true, start + 7) with 7 bytes or more; else (indeterminate, end), nothing changed.
    parse_result_t parse(iobuf_const_iter_t start, iobuf_const_iter_t end) override;
    void serialize(iobuf_t& out) override;
};
