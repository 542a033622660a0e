#include "io/serial/rtu_framer.h"

#include "util/crc16.h"

void CRtuFramer::configure(int64_t silence_us, int64_t break_us, const std::bitset<256>& served,
                           length_rule_t length, CTransportCounters* counts) {
    _counts = counts;
    _silence_us = silence_us;
    _break_us = break_us;
    _served = served;
    _length = std::move(length);
    hunt();
}

void CRtuFramer::hunt() {
    _frame.clear();
    _alt.clear();
    _hunting = true;
    _start_now = false;
}

void CRtuFramer::expect_frame() {
    hunt();
    _start_now = true;
}

bool CRtuFramer::crc_holds(const std::vector<uint8_t>& frame) {
    return crc16::holds(frame.data(), frame.size());
}

CRtuFramer::step_t CRtuFramer::advance(std::vector<uint8_t>& frame, uint8_t byte) const {
    frame.push_back(byte);
    if (frame.size() < 2)
        return step_t::more;
    const size_t length = _length(frame.data(), frame.size());
    if (length == no_frame || length > max_frame)
        return step_t::dead;
    if (length == 0 || frame.size() < length)
        return step_t::more;
    // A complete frame, or noise that happened to start like one.
    const bool good = crc_holds(frame);
    if (_counts != nullptr) {
        ++_counts->messages;
        if (!good)
            ++_counts->checksum_errors;
    }
    return good ? step_t::done : step_t::dead;
}

bool CRtuFramer::feed(uint8_t byte, int64_t gap_us) {
    const bool after_silence = gap_us > _silence_us || _start_now;
    _start_now = false;
    if (_hunting) {
        if (!after_silence || !_served[byte])
            return false;
        _hunting = false;
        _frame.assign(1, byte);
        return false;
    }
    step_t alt = step_t::dead;
    if (gap_us > _break_us) {
        // A newer break replaces the frame begun at the older one.
        _alt.clear();
        if (_served[byte]) {
            _alt.push_back(byte);
            alt = step_t::more;
        }
    } else if (!_alt.empty()) {
        alt = advance(_alt, byte);
    }
    const step_t held = advance(_frame, byte);
    if (held == step_t::done) {
        _alt.clear();
        _hunting = true;
        return true;
    }
    if (alt == step_t::done) {
        _frame.swap(_alt);
        _alt.clear();
        _hunting = true;
        return true;
    }
    if (held == step_t::dead) {
        if (alt == step_t::more)
            _frame.swap(_alt);
        else
            _hunting = true;
        _alt.clear();
        return false;
    }
    if (alt == step_t::dead)
        _alt.clear();
    return false;
}
