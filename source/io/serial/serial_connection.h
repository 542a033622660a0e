#pragma once
// The messenger of one Modbus RTU serial interface. It opens the device, applies the line
// settings, and finds frames by the RTU character timing.
//
// Frames are found by a CRtuFramer: a frame starts after a silence of more than 1.5
// characters with a served slave address, ends at the length its function code gives (the
// rule it is made with), and counts only with a good CRC; a silence inside a frame drops what
// was held. Each complete frame is handed to the protocol handler on its own, and the handler
// says whether to answer it. A frame it does not answer is dropped and the line hunted again.
//
// After an answer has been written, bytes that were already waiting (left over from the last
// read or in the driver) may start a frame without a silence; the line is hunted afresh
// otherwise. A pseudo-terminal has no line timing and hands over a whole write at once, as if
// its first byte began n - 1 characters earlier: a peer that sends an n-byte request sooner
// than 1.5 + n - 1 characters after an answer is taken for noise.
//
// Failing to open the device is logged and reported by is_open(), never thrown. A setting the
// port refuses is logged and the port keeps its previous value. An I/O error or the other end
// going away ends only this connection.
#include "io/io_messenger.h"
#include "io/serial/ascii_framer.h"
#include "io/serial/local_echo.h"
#include "io/serial/rs485.h"
#include "io/serial/rtu_framer.h"
#include "toolkit/tk_string.h"
#include "util/iobuf.h"

#include <boost/asio/serial_port.hpp>
#include <boost/asio/steady_timer.hpp>

#include <bitset>
#include <cstdint>

class CSerialConnection : public CIoMessenger {
public:
    // Data bits, 5 to 8.
    using char_size_t = unsigned;
    // The values are those of the interface settings.
    enum class parity_t : unsigned { none = 0, odd = 1, even = 2 };
    enum class stop_bits_t : unsigned { one = 0, one_and_half = 1, two = 2 };
    enum class flow_ctrl_t : unsigned { none = 0, software = 1, hardware = 2 };

    // Character timing of a frame format, in nanoseconds.
    struct rtu_timing_t {
        int64_t t15;       // the 1.5-character silence, always counted with 11-bit characters
        int64_t char_time; // one character of the actual format
        unsigned char_bits;
    };
    // A baud rate of 0 is timed as 9600, a character size outside 5 to 8 as 8.
    static rtu_timing_t rtu_timing(uint32_t baud, char_size_t char_size, parity_t parity,
                                   stop_bits_t stop_bits);

    // What finds the frames of a line: the slave addresses served, the length rule of a
    // frame (CRtuFramer), and the line's counters (null: not counted). With ascii, frames are
    // Modbus ASCII lines (CAsciiFramer) instead, abandoned after a silence of
    // ascii_timeout_us inside one; the handler still sees and answers RTU frames.
    struct framing_t {
        std::bitset<256> served;
        CRtuFramer::length_rule_t length;
        CTransportCounters* counters = nullptr;
        bool ascii = false;
        int64_t ascii_timeout_us = 1000000;
    };

    static std::shared_ptr<CSerialConnection> create(CIoManager& manager,
                                                     std::unique_ptr<CProtocolHandler> handler,
                                                     const tk_string& device, framing_t framing);
    ~CSerialConnection() override;

    // Only an open connection may be start()ed.
    bool is_open() const { return _port.is_open(); }
    const tk_string& device() const { return _device; }
    int64_t char_time() const { return _char_time; }
    int64_t timer_t15() const { return _timerT15; }

    void set_baud_rate(unsigned baud);
    void set_flow_control(flow_ctrl_t flow);
    void set_char_size(char_size_t bits);
    void set_parity(parity_t parity);
    void set_stop_bits(stop_bits_t stop_bits);
    // Computes the timing that tells frames apart and starts hunting. Call before start().
    void set_timing(uint32_t baud, char_size_t char_size, parity_t parity, stop_bits_t stop_bits);
    // Hands the handler its waker and starts reading.
    void start();
    // The line driver's RS-485 settings (CRs485), once the line is set.
    void set_rs485(const CRs485::settings_t& settings);
    // The adapter hears what it sends: the bytes of each answer are read back and dropped
    // (CLocalEcho), an echo that differs counted as an echo error.
    void set_local_echo(bool on) { _local_echo = on; }
    // Each answer waits this long, for masters that turn the bus slowly.
    void set_response_delay(uint32_t ms);

    void close() override;

private:
    CSerialConnection(CIoManager& manager, const tk_string& device, framing_t framing);
    std::shared_ptr<CSerialConnection> self();
    void read_more();
    // Drops the unread bytes and hunts for the next frame start from now.
    void reset_flags();
    void handle_read(const boost::system::error_code& error, size_t count);
    void handle_write(const boost::system::error_code& error);
    // Hands the frame just completed to the handler, and acts on its answer.
    void parse();
    void act(const CProtocolHandler::action_t& action);
    void write(const uint8_t* data, size_t size);
    // Drops the echo from the count bytes read; the count left, moved to the front.
    size_t drop_echo(size_t count);
    void resumed() override;
    template <class Option> void apply(const Option& option, const char* what, unsigned value);
    bool input_waiting();
    // Feeds the unfed bytes to the framer, the first after gap_us of silence, until a frame
    // is complete (then parse()) or they are used up (then read_more()).
    void feed(int64_t gap_us);

    boost::asio::serial_port _port;
    tk_string _device;
    framing_t _framing;
    std::unique_ptr<CProtocolHandler> _pending; // the handler, until start()
    int64_t _char_time = 0;
    int64_t _timerT15 = 0;
    CRtuFramer _rtu;
    CAsciiFramer _ascii;
    // The one of the two the line speaks.
    CSerialFramer* _framer = &_rtu;
    static constexpr size_t read_size = 256;
    // Bytes as read from the port; those not yet fed to the framer.
    iobuf_t _raw;
    iobuf_t _unfed;
    int64_t _last_rx = 0;
    // The next read's bytes waited in the driver while an answer was written.
    bool _waited = false;
    bool _local_echo = false;
    CLocalEcho _echo;
    // Holds each answer for the response delay; null without one.
    std::unique_ptr<boost::asio::steady_timer> _delay;
    std::chrono::milliseconds _response_delay{0};
};
