#pragma once
// The master side of a serial line: it sends the frames its client (CBusClient) gives, one
// exchange at a time, and hands back what the line answered. It keeps the bus's timing:
//
// - Before a frame, the line has been silent for 3.5 characters (at least 1.75 ms) since
//   the last byte heard, and for the rest a frame without an answer asked for.
// - An answer is awaited for the frame's time-out, counted from the frame's end on the wire
//   (its bytes at the line's character time, plus the RS-485 delays). Its end is the length
//   the client reads from its first bytes, waited for until that time-out (a pause inside
//   the frame does not cut it short); when the length cannot be told, it is 3.5 characters
//   of silence, and bytes still waiting in the driver when the silence seems to have come
//   are not taken for one.
// - Bytes heard while no answer is awaited (a late answer, noise) are dropped, but they keep
//   the bus busy: the next frame waits for the silence after them.
// - With local echo, the bytes just written are read back first and dropped (CLocalEcho); an
//   echo that differs is counted as an echo error.
//
// A port that cannot be opened, or that fails, tells its client unavailable() and ends.
// Everything runs on the I/O thread.
#include "io/io_actor.h"
#include "io/serial/bus_client.h"
#include "io/serial/local_echo.h"
#include "io/serial/serial_line.h"
#include "util/transport_counters.h"

#include <boost/asio/steady_timer.hpp>

#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

class CSerialMaster : public CIoActor {
public:
    struct options_t {
        CSerialLine::settings_t line;
        bool local_echo = false;
        // Echo errors are counted here; null: not counted.
        CTransportCounters* counters = nullptr;
    };
    using clock_t = std::chrono::steady_clock;

    // The client must outlive the actor.
    static std::shared_ptr<CSerialMaster> create(CIoManager& manager, CBusClient& client,
                                                 const std::string& device,
                                                 const options_t& options);
    ~CSerialMaster() override;

    bool is_open() { return _line.is_open(); }
    // The silence between frames.
    clock_t::duration frame_gap() const { return _gap; }
    // Starts reading and asks the client for its first frame; a port that did not open tells
    // the client unavailable() instead.
    void start();
    void close() override;

private:
    enum class state_t { idle, quiet, answer, rest, closed };

    CSerialMaster(CIoManager& manager, CBusClient& client, const std::string& device,
                  const options_t& options);
    std::shared_ptr<CSerialMaster> self();
    // When idle: asks the client for a frame and sends it once the bus is free.
    void kick();
    void kick_later();
    void send();
    void read_more();
    void handle_read(const boost::system::error_code& error, size_t count);
    void handle_write(const boost::system::error_code& error);
    // The timer of the state (quiet, answer, rest) has run out.
    void expired();
    void arm(clock_t::time_point at);
    // The answer is complete: back to idle, and to the client.
    void deliver();
    void fail(const char* what, const boost::system::error_code& error);

    CBusClient& _client;
    CSerialLine _line;
    bool _local_echo;
    CTransportCounters* _counters;
    CLocalEcho _echo;
    clock_t::duration _gap;
    clock_t::duration _char_time;
    clock_t::duration _rs485_delays;
    boost::asio::steady_timer _timer;
    // Timer runs of an older arming are ignored.
    uint32_t _armed = 0;
    state_t _state = state_t::idle;
    CBusClient::frame_t _frame;
    std::vector<uint8_t> _answer;
    std::array<uint8_t, 256> _rbuf{};
    // The next frame may start then.
    clock_t::time_point _bus_free;
    // When the frame's first byte was written, and when its last will have left the wire.
    clock_t::time_point _sent;
    clock_t::time_point _sent_end;
    // When the answer's time-out runs out.
    clock_t::time_point _deadline;
    bool _kick_posted = false;
};
