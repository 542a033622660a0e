#include "io/serial/rtu_framer.h"

#include "modbus/protocol/serial/modbus_serial_crc.h"

void CRtuFramer::configure(int64_t silence_us, const std::bitset<256>& served,
                           length_rule_t length) {
    _silence_us = silence_us;
    _served = served;
    _length = std::move(length);
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
    const size_t length = _length(_frame.data(), _frame.size());
    if (length == no_frame || length > max_frame) {
        hunt();
        return false;
    }
    if (length == 0 || _frame.size() < length)
        return false;
    // A complete frame, or noise that happened to start like one.
    _hunting = true;
    if (crc_holds())
        return true;
    _frame.clear();
    return false;
}
