#pragma once
// Byte routines of the framing code. Each advances the iterator it is given by 2. Register
// values, addresses and quantities are big-endian; only the RTU CRC is little-endian.
#include "modbus/protocol/protocol_object.h"

class CModbusUtil {
public:
    static uint16_t read_u16(iobuf_const_iter_t& it);
    static uint16_t read_u16_lsb(iobuf_const_iter_t& it);
    // Write into space the caller has already sized.
    static void write_u16(iobuf_t::iterator& it, uint16_t value);
    static void write_u16_lsb(iobuf_t::iterator& it, uint16_t value);
};
