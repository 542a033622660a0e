#pragma once
// The CRC-16 of a Modbus RTU frame (reflected polynomial 0xA001, initial 0xFFFF), sent low
// byte first. It is always computed from an ADU's parsed fields, never from raw bytes.
#include "modbus/protocol/protocol_object.h"

class CModbusSerialAdu;

class CModbusSerialCrc : public CProtocolObject {
public:
    static const uint16_t _crc_table[256];

    static uint16_t build_crc(uint16_t crc, uint8_t byte) {
        return static_cast<uint16_t>((crc >> 8) ^ _crc_table[(crc ^ byte) & 0xff]);
    }
    static uint16_t calculate(const CModbusSerialAdu& adu);

    void update(const CModbusSerialAdu& adu) { _value = calculate(adu); }
    bool verify(const CModbusSerialAdu& adu) const { return _value == calculate(adu); }
    uint16_t value() const { return _value; }

    // Exactly two bytes: (true, end); any other count: (false, end).
    parse_result_t parse(iobuf_const_iter_t start, iobuf_const_iter_t end) override;
    void serialize(iobuf_t& out) override;

private:
    uint16_t _value = 0;
};
