#pragma once
// Finds Modbus RTU request frames in the bytes of a serial line. Fed one byte at a time with
// the silence before it, it returns each complete frame; it knows no clock and no port.
//
// RTU frames carry no length and are told apart by silence. A frame starts only after a
// silence longer than the configured one (1.5 characters), with a served slave address. Its
// length follows from its first bytes by the rule it is configured with (the function code
// and, for multiple writes, the byte count), and it is taken only when its CRC holds.
//
// A break inside a frame (a silence of 3.5 characters, the gap between frames) means that
// the master gave up on the frame, or that this process read the line late: a descheduled
// reader sees silences the wire never had. The two cannot be told apart by time, so both are
// followed: the frame held, and a new one from the byte after the break (when it is a served
// address). The first to end with a good CRC is taken; one that cannot be a frame is dropped.
// Anything else (foreign addresses, other function codes, bad CRCs, bytes without silence
// before them) is dropped, and the framer hunts for the next silence.
#include "io/serial/serial_framer.h"
#include "util/transport_counters.h"

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

class CRtuFramer : public CSerialFramer {
public:
    // The longest frame: function 15 or 16 with a byte count of 255.
    static constexpr size_t max_frame = 9 + 255;

    // The whole length of the frame that starts with the n bytes given (n >= 2), 0 while
    // they do not tell yet, or no_frame when no frame starts so.
    typedef std::function<size_t(const uint8_t* frame, size_t n)> length_rule_t;
    static constexpr size_t no_frame = static_cast<size_t>(-1);

    // silence_us: the silence a frame must follow. break_us: the silence that abandons a
    // frame under way. served: the slave addresses answered. counts, when not null, gets
    // every frame that reached its length (messages) and those whose CRC failed.
    void configure(int64_t silence_us, int64_t break_us, const std::bitset<256>& served,
                   length_rule_t length, CTransportCounters* counts = nullptr);

    // One received byte that began gap_us microseconds after the previous byte ended (0 for
    // bytes that arrived together). True when it completed a frame, which frame() then holds
    // until the next call.
    bool feed(uint8_t byte, int64_t gap_us) override;
    const std::vector<uint8_t>& frame() const override { return _frame; }

    // Forgets any partial frame; the next frame needs a silence before it.
    void hunt() override;
    // Forgets any partial frame; the next byte may start a frame without a silence (bytes that
    // waited while an answer was being sent).
    void expect_frame() override;
    // True while no frame is under way.
    bool hunting() const override { return _hunting; }
    // The bytes held of an unfinished frame (the older one, when two are followed).
    size_t held() const { return _hunting ? 0 : _frame.size(); }

private:
    enum class step_t { more, dead, done };
    // Appends byte to frame and judges it by its length rule and CRC.
    step_t advance(std::vector<uint8_t>& frame, uint8_t byte) const;
    static bool crc_holds(const std::vector<uint8_t>& frame);

    int64_t _silence_us = 0;
    int64_t _break_us = 0;
    std::bitset<256> _served;
    length_rule_t _length;
    CTransportCounters* _counts = nullptr;
    std::vector<uint8_t> _frame;
    // The frame begun after the last break inside _frame; empty when there is none.
    std::vector<uint8_t> _alt;
    bool _hunting = true;
    bool _start_now = false;
};
