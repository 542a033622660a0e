#include "modbus/protocol/serial/modbus_serial_crc.h"

#include "modbus/protocol/modbus_util.h"
#include "modbus/protocol/serial/modbus_serial_adu.h"
#include "util/crc16.h"
#include "util/log.h"

#include <cassert>

const uint16_t CModbusSerialCrc::_crc_table[256] = {
#define MB_CRC_ROW(i)                                                                              \
    crc16::table.entries[i], crc16::table.entries[i + 1], crc16::table.entries[i + 2],             \
        crc16::table.entries[i + 3], crc16::table.entries[i + 4], crc16::table.entries[i + 5],     \
        crc16::table.entries[i + 6], crc16::table.entries[i + 7]
    MB_CRC_ROW(0),   MB_CRC_ROW(8),   MB_CRC_ROW(16),  MB_CRC_ROW(24),  MB_CRC_ROW(32),
    MB_CRC_ROW(40),  MB_CRC_ROW(48),  MB_CRC_ROW(56),  MB_CRC_ROW(64),  MB_CRC_ROW(72),
    MB_CRC_ROW(80),  MB_CRC_ROW(88),  MB_CRC_ROW(96),  MB_CRC_ROW(104), MB_CRC_ROW(112),
    MB_CRC_ROW(120), MB_CRC_ROW(128), MB_CRC_ROW(136), MB_CRC_ROW(144), MB_CRC_ROW(152),
    MB_CRC_ROW(160), MB_CRC_ROW(168), MB_CRC_ROW(176), MB_CRC_ROW(184), MB_CRC_ROW(192),
    MB_CRC_ROW(200), MB_CRC_ROW(208), MB_CRC_ROW(216), MB_CRC_ROW(224), MB_CRC_ROW(232),
    MB_CRC_ROW(240), MB_CRC_ROW(248)
#undef MB_CRC_ROW
};

uint16_t CModbusSerialCrc::calculate(const CModbusSerialAdu& adu) {
    uint16_t crc = 0xFFFF;
    crc = build_crc(crc, adu.address);
    crc = build_crc(crc, adu.pdu.function);
    for (const uint8_t byte : adu.pdu.data)
        crc = build_crc(crc, byte);
    return crc;
}

parse_result_t CModbusSerialCrc::parse(iobuf_const_iter_t start, iobuf_const_iter_t end) {
    assert(end >= start);
    if (end - start != 2) {
        LOG_DEBUG(SS_SERIAL_PROTOCOL, 3, "Bad CRC length: %zu", static_cast<size_t>(end - start));
        return parse_result_t(false, end);
    }
    _value = CModbusUtil::read_u16_lsb(start);
    return parse_result_t(true, end);
}

void CModbusSerialCrc::serialize(iobuf_t& out) {
    out.resize(out.size() + 2);
    auto it = out.end() - 2;
    CModbusUtil::write_u16_lsb(it, _value);
}
