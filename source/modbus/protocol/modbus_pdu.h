#pragma once
// A Modbus protocol data unit: function code and data. It takes the whole range it is
// given, so the caller must hand it exactly the PDU's bytes; it never reports "bad".
#include "modbus/protocol/protocol_object.h"

class CModbusPdu : public CProtocolObject {
public:
    // The longest PDU there is: an RTU frame of 256 bytes less address and CRC. TCP's length
    // field could say more, but no answer may be longer either.
    static constexpr size_t max_length = 253;

    uint8_t function = 0;
    iobuf_t data;

    size_t length() const { return data.size() + 1; }
    parse_result_t parse(iobuf_const_iter_t start, iobuf_const_iter_t end) override;
    void serialize(iobuf_t& out) override;
    // Becomes the exception response for code: function | 0x80, then the code.
    void err(modbus_err_t code);
};
