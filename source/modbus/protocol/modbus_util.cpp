#include "modbus/protocol/modbus_util.h"

uint16_t CModbusUtil::read_u16(iobuf_const_iter_t& it) {
    const uint16_t hi = *it++;
    const uint16_t lo = *it++;
    return static_cast<uint16_t>(hi << 8 | lo);
}

uint16_t CModbusUtil::read_u16_lsb(iobuf_const_iter_t& it) {
    const uint16_t lo = *it++;
    const uint16_t hi = *it++;
    return static_cast<uint16_t>(hi << 8 | lo);
}

void CModbusUtil::write_u16(iobuf_t::iterator& it, uint16_t value) {
    *it++ = static_cast<uint8_t>(value >> 8);
    *it++ = static_cast<uint8_t>(value & 0xff);
}

void CModbusUtil::write_u16_lsb(iobuf_t::iterator& it, uint16_t value) {
    *it++ = static_cast<uint8_t>(value & 0xff);
    *it++ = static_cast<uint8_t>(value >> 8);
}
