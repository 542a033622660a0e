#include "io/serial/rtu_framer.h"

#include "modbus/protocol/serial/modbus_serial_adu.h"
#include "modbus/protocol/serial/modbus_serial_crc.h"

void CRtuFramer::configure(int64_t silence_us, const std::bitset<256>& served) {
    _silence_us = silence_us;
    _served = served;
    hunt();
}

void CRtuFramer::hunt() {
    _frame.clear();
    _hunting = true;
    _start_now = false;
}

void CRtuFramer::expect_frame() {
    hunt();
    _start_now = true;
}

size_t CRtuFramer::expected_length() const {
    switch (_frame[1]) {
    case 15:
    case 16:
        // address, function, start, quantity, byte count, data, CRC
        return _frame.size() < 7 ? 0 : 9 + static_cast<size_t>(_frame[6]);
    default:
        return 8;
    }
}

bool CRtuFramer::crc_holds() const {
    uint16_t crc = 0xFFFF;
    for (size_t i = 0; i + 2 < _frame.size(); ++i)
        crc = CModbusSerialCrc::build_crc(crc, _frame[i]);
    // Sent low byte first.
    return _frame[_frame.size() - 2] == (crc & 0xff) && _frame[_frame.size() - 1] == (crc >> 8);
}

bool CRtuFramer::feed(uint8_t byte, int64_t gap_us) {
    const bool after_silence = gap_us > _silence_us || _start_now;
    _start_now = false;
    if (_hunting) {
        _frame.clear();
    } else if (after_silence) {
        // The frame broke off: whatever it held is dropped, this byte may begin the next.
        hunt();
    }
    if (_hunting) {
        if (!after_silence || !_served[byte])
            return false;
        _hunting = false;
        _frame.push_back(byte);
        return false;
    }
    _frame.push_back(byte);
    if (_frame.size() == 2 && !CModbusSerialAdu::supported_function(byte)) {
        hunt();
        return false;
    }
    if (_frame.size() < 2)
        return false;
    const size_t length = expected_length();
    if (length == 0 || _frame.size() < length)
        return false;
    // A complete frame, or noise that happened to start like one.
    _hunting = true;
    if (crc_holds())
        return true;
    _frame.clear();
    return false;
}
