#include "io/serial/ascii_framer.h"

#include "util/crc16.h"

namespace {

// The value of a hex digit (either case), or -1.
int hex_value(uint8_t c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

// The byte of the two digits at p, or -1.
int hex_byte(const uint8_t* p) {
    const int hi = hex_value(p[0]);
    const int lo = hex_value(p[1]);
    return hi < 0 || lo < 0 ? -1 : hi << 4 | lo;
}

void put_hex(std::vector<uint8_t>& out, uint8_t byte) {
    static const char digits[] = "0123456789ABCDEF";
    out.push_back(static_cast<uint8_t>(digits[byte >> 4]));
    out.push_back(static_cast<uint8_t>(digits[byte & 0xF]));
}

} // namespace

void CAsciiFramer::configure(int64_t char_timeout_us, const std::bitset<256>& served,
                             CTransportCounters* counts) {
    _timeout_us = char_timeout_us;
    _served = served;
    _counts = counts;
    hunt();
}

void CAsciiFramer::hunt() {
    _state = state_t::idle;
    _digits.clear();
}

bool CAsciiFramer::maybe_ours() const {
    if (_digits.size() < 2)
        return true;
    const int address = hex_byte(_digits.data());
    return address < 0 || _served[static_cast<size_t>(address)];
}

void CAsciiFramer::count(bool ok, bool ours) {
    if (_counts == nullptr || !ours)
        return;
    ++_counts->messages;
    if (!ok)
        ++_counts->checksum_errors;
}

void CAsciiFramer::abandon() {
    count(false, maybe_ours());
    hunt();
}

bool CAsciiFramer::feed(uint8_t byte, int64_t gap_us) {
    if (_state != state_t::idle && _timeout_us > 0 && gap_us > _timeout_us)
        abandon();
    if (byte == ':') {
        if (_state != state_t::idle)
            abandon();
        _state = state_t::digits;
        return false;
    }
    switch (_state) {
    case state_t::idle:
        return false; // noise between frames
    case state_t::digits:
        if (byte == '\r') {
            _state = state_t::line_feed;
        } else if (_digits.size() == max_digits) {
            abandon();
        } else {
            _digits.push_back(byte);
        }
        return false;
    case state_t::line_feed:
        if (byte != '\n') {
            abandon();
            return false;
        }
        const bool done = finish();
        hunt();
        return done;
    }
    return false;
}

bool CAsciiFramer::finish() {
    const bool ours = maybe_ours();
    const size_t n = _digits.size();
    // An address, a function code and the LRC at least, each two digits.
    if (n % 2 != 0 || n < 6) {
        count(false, ours);
        return false;
    }
    _frame.clear();
    uint8_t sum = 0;
    for (size_t i = 0; i < n; i += 2) {
        const int byte = hex_byte(&_digits[i]);
        if (byte < 0) {
            count(false, ours);
            return false;
        }
        _frame.push_back(static_cast<uint8_t>(byte));
        sum = static_cast<uint8_t>(sum + byte);
    }
    if (!ours)
        return false;
    // The LRC makes the sum of every byte 0.
    if (sum != 0) {
        count(false, ours);
        return false;
    }
    count(true, ours);
    _frame.pop_back();
    uint16_t crc = crc16::initial;
    for (const uint8_t byte : _frame)
        crc = crc16::step(crc, byte);
    _frame.push_back(static_cast<uint8_t>(crc & 0xFF));
    _frame.push_back(static_cast<uint8_t>(crc >> 8));
    return true;
}

std::pair<const uint8_t*, size_t> CAsciiFramer::encode(const uint8_t* frame, size_t n) {
    _line.clear();
    _line.push_back(':');
    uint8_t sum = 0;
    // Everything but the CRC, which the LRC replaces.
    for (size_t i = 0; i + 2 < n; ++i) {
        put_hex(_line, frame[i]);
        sum = static_cast<uint8_t>(sum + frame[i]);
    }
    put_hex(_line, static_cast<uint8_t>(-sum));
    _line.push_back('\r');
    _line.push_back('\n');
    return {_line.data(), _line.size()};
}
