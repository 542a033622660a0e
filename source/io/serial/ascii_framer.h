#pragma once
// Finds Modbus ASCII request frames in the characters of a serial line. A frame starts with
// ':' (one in the middle of a frame abandons it and starts anew), carries the address, the PDU
// and an LRC as pairs of hex digits, and ends with CR LF; silences do not matter, but for an
// inter-character time-out that abandons a frame under way. A frame that cannot be taken (an
// LRC that does not hold, a character that is no hex digit, an odd number of digits, no CR LF,
// a silence too long, more digits than the longest frame has) is dropped and counted, when it
// was for a served address or its address cannot be read. Frames for other addresses are
// dropped uncounted: they are another slave's.
//
// A frame comes out as the RTU frame of the request (address, PDU, CRC), so that the line's
// handler need not know the encoding, and encode() turns the answer back into a line.
#include "io/serial/serial_framer.h"
#include "util/transport_counters.h"

#include <bitset>

class CAsciiFramer : public CSerialFramer {
public:
    // The digits of the longest frame: address, a PDU of 253 bytes and the LRC.
    static constexpr size_t max_digits = 2 * (1 + 253 + 1);

    // char_timeout_us: the longest silence between two characters of a frame (0: no limit).
    // served: the addresses answered. counts, when not null, gets every frame that reached
    // its end or was abandoned (messages) and those that could not be taken (checksum errors).
    void configure(int64_t char_timeout_us, const std::bitset<256>& served,
                   CTransportCounters* counts = nullptr);

    bool feed(uint8_t byte, int64_t gap_us) override;
    const std::vector<uint8_t>& frame() const override { return _frame; }
    void hunt() override;
    // Frames start with ':', not with a silence: the same as hunt().
    void expect_frame() override { hunt(); }
    bool hunting() const override { return _state == state_t::idle; }
    // ':', the hex digits of address, PDU and LRC, CR LF.
    std::pair<const uint8_t*, size_t> encode(const uint8_t* frame, size_t n) override;

private:
    enum class state_t { idle, digits, line_feed };

    // A frame under way ends without becoming one.
    void abandon();
    // The digits received make a frame: it is in _frame.
    bool finish();
    // A frame reached its end (ok) or failed; counted when it may have been for us.
    void count(bool ok, bool ours);
    // Whether the frame held is for a served address, or its address cannot be read.
    bool maybe_ours() const;

    int64_t _timeout_us = 0;
    std::bitset<256> _served;
    CTransportCounters* _counts = nullptr;
    state_t _state = state_t::idle;
    std::vector<uint8_t> _digits;
    std::vector<uint8_t> _frame;
    std::vector<uint8_t> _line;
};
