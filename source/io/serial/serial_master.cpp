#include "io/serial/serial_master.h"

#include "util/log.h"

#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>

#include <algorithm>
#include <cassert>

namespace {

// The longest Modbus RTU frame.
constexpr size_t max_frame = 256;

} // namespace

std::shared_ptr<CSerialMaster> CSerialMaster::create(CIoManager& manager, CBusClient& client,
                                                     const std::string& device,
                                                     const options_t& options) {
    std::shared_ptr<CSerialMaster> master(new CSerialMaster(manager, client, device, options));
    std::weak_ptr<CIoActor> weak = master;
    CSerialMaster* raw = master.get();
    client.set_waker([weak, raw] {
        if (const auto self = weak.lock())
            raw->kick_later();
    });
    return master;
}

CSerialMaster::CSerialMaster(CIoManager& manager, CBusClient& client, const std::string& device,
                             const options_t& options)
    : CIoActor(manager), _client(client), _line(get_io_service(), device, options.line),
      _local_echo(options.local_echo), _counters(options.counters), _timer(get_io_service()) {
    const CSerialConnection::rtu_timing_t& timing = _line.timing();
    _char_time = std::chrono::nanoseconds(timing.char_time);
    // 3.5 characters, but at least 1.75 ms at high baud rates, as the slave side has it.
    _gap = std::max<clock_t::duration>(_char_time * 7 / 2, std::chrono::microseconds(1750));
    _rs485_delays = options.line.rs485.enabled
                        ? std::chrono::milliseconds(options.line.rs485.delay_before_ms +
                                                    options.line.rs485.delay_after_ms)
                        : clock_t::duration::zero();
    _bus_free = clock_t::now();
}

CSerialMaster::~CSerialMaster() {
    close();
}

std::shared_ptr<CSerialMaster> CSerialMaster::self() {
    return std::static_pointer_cast<CSerialMaster>(shared_from_this());
}

void CSerialMaster::start() {
    if (!_line.is_open()) {
        _state = state_t::closed;
        _client.unavailable();
        return;
    }
    read_more();
    kick();
}

void CSerialMaster::close() {
    _state = state_t::closed;
    ++_armed;
    _timer.cancel();
    _line.close();
}

void CSerialMaster::fail(const char* what, const boost::system::error_code& error) {
    LOG_ERR(SS_SERIAL_IO, 1, "%s '%s': %s; the line is given up", what, _line.device().c_str(),
            error.message().c_str());
    close();
    _client.unavailable();
    remove();
}

void CSerialMaster::kick_later() {
    if (_kick_posted || _state != state_t::idle)
        return;
    _kick_posted = true;
    std::weak_ptr<CIoActor> weak = shared_from_this();
    boost::asio::post(get_io_service(), [this, weak] {
        if (const auto me = weak.lock()) {
            _kick_posted = false;
            kick();
        }
    });
}

void CSerialMaster::kick() {
    if (_state != state_t::idle)
        return;
    _frame = _client.next();
    if (_frame.data == nullptr || _frame.size == 0)
        return;
    if (clock_t::now() < _bus_free) {
        _state = state_t::quiet;
        arm(_bus_free);
        return;
    }
    send();
}

void CSerialMaster::arm(clock_t::time_point at) {
    const uint32_t armed = ++_armed;
    _timer.expires_at(at);
    auto me = self();
    _timer.async_wait([me, armed](const boost::system::error_code& error) {
        if (!error && armed == me->_armed)
            me->expired();
    });
}

void CSerialMaster::send() {
    LOG_DUMP(SS_SERIAL_IO, 6, _frame.data, _frame.size, "Sending");
    _sent = clock_t::now();
    _sent_end = _sent + _char_time * static_cast<int64_t>(_frame.size) + _rs485_delays;
    _answer.clear();
    if (_local_echo)
        _echo.expect(_frame.data, _frame.size);
    if (_frame.answer) {
        _state = state_t::answer;
        _deadline = _sent_end + std::chrono::milliseconds(_frame.timeout_ms);
        arm(_deadline);
    } else {
        _state = state_t::rest;
        _bus_free = std::max(_bus_free, _sent_end + std::chrono::milliseconds(_frame.rest_ms));
        arm(_bus_free);
    }
    auto me = self();
    boost::asio::async_write(
        _line.port(), boost::asio::buffer(_frame.data, _frame.size),
        [me](const boost::system::error_code& error, size_t) { me->handle_write(error); });
}

void CSerialMaster::handle_write(const boost::system::error_code& error) {
    if (error && error != boost::asio::error::operation_aborted && _state != state_t::closed)
        fail("Writing", error);
}

void CSerialMaster::read_more() {
    auto me = self();
    _line.port().async_read_some(boost::asio::buffer(_rbuf),
                                 [me](const boost::system::error_code& error, size_t count) {
                                     me->handle_read(error, count);
                                 });
}

void CSerialMaster::handle_read(const boost::system::error_code& error, size_t count) {
    if (_state == state_t::closed)
        return;
    if (error) {
        if (error != boost::asio::error::operation_aborted)
            fail("Reading", error);
        return;
    }
    LOG_DUMP(SS_SERIAL_IO, 6, _rbuf.data(), count, "Received");
    const uint8_t* data = _rbuf.data();
    if (_local_echo && _echo.pending()) {
        bool mismatch = false;
        const size_t echo = _echo.strip(data, count, mismatch);
        if (mismatch) {
            LOG_DEBUG(SS_SERIAL_IO, 3, "'%s': the echo differs from what was sent",
                      _line.device().c_str());
            if (_counters != nullptr)
                ++_counters->echo_errors;
        }
        data += echo;
        count -= echo;
    }
    if (count != 0) {
        const clock_t::time_point now = clock_t::now();
        _bus_free = std::max(_bus_free, now + _gap);
        if (_state == state_t::answer) {
            const size_t take = std::min(count, max_frame - _answer.size());
            _answer.insert(_answer.end(), data, data + take);
            const size_t length = _client.answer_length(_answer.data(), _answer.size());
            if (_answer.size() == max_frame ||
                (length != 0 && length != CBusClient::by_silence && _answer.size() >= length)) {
                // Bytes past the frame's end are noise; the answer is judged without them.
                if (length != 0 && length < _answer.size())
                    _answer.resize(length);
                read_more();
                deliver();
                return;
            }
            // The silence that ends a frame whose length its bytes do not tell; the rest of
            // any other, until the answer's time-out (a loaded machine or adapter may pause
            // inside a frame for longer than the silence).
            arm(length == CBusClient::by_silence ? now + _gap : std::max(now + _gap, _deadline));
        } else {
            LOG_DEBUG(SS_SERIAL_IO, 4, "'%s': %zu bytes while no answer was awaited, dropped",
                      _line.device().c_str(), count);
        }
    }
    read_more();
}

void CSerialMaster::expired() {
    switch (_state) {
    case state_t::quiet:
        send();
        return;
    case state_t::rest:
        _state = state_t::idle;
        kick();
        return;
    case state_t::answer:
        // Bytes in the driver have not been read yet: the silence is not real.
        if (_line.input_waiting()) {
            arm(clock_t::now() + _gap);
            return;
        }
        if (!_answer.empty()) {
            deliver();
            return;
        }
        _echo.clear();
        _state = state_t::idle;
        _client.no_answer();
        kick_later();
        return;
    case state_t::idle:
    case state_t::closed:
        return;
    }
}

void CSerialMaster::deliver() {
    ++_armed;
    _timer.cancel();
    _echo.clear();
    _state = state_t::idle;
    const int64_t us =
        std::chrono::duration_cast<std::chrono::microseconds>(clock_t::now() - _sent).count();
    // The client may be handed a new frame by the time it returns; the answer is its copy.
    const std::vector<uint8_t> answer = std::move(_answer);
    _answer.clear();
    _client.answered(answer.data(), answer.size(), us);
    kick_later();
}
