#pragma once
// A Modbus RTU frame: slave address, PDU and CRC. The transport decides where a frame
// ends; parse takes one whole frame and always consumes all of it. The CRC is checked by
// the caller (crc.verify).
#include "modbus/modbus_types.h"
#include "modbus/protocol/modbus_pdu.h"
#include "modbus/protocol/serial/modbus_serial_crc.h"

class CModbusSerialAdu : public CModbusAdu {
public:
    slave_addr_t address = 0;
    CModbusPdu pdu;
    CModbusSerialCrc crc;

    parse_result_t parse(iobuf_const_iter_t start, iobuf_const_iter_t end) override;
    // Recomputes the CRC before writing it.
    void serialize(iobuf_t& out) override;
    void err(modbus_err_t code) override { pdu.err(code); }
};
