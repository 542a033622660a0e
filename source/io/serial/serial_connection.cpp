#include "io/serial/serial_connection.h"

#include "io/protocol_handler.h"
#include "util/log.h"

#include <boost/asio/write.hpp>

#include <sys/ioctl.h>
#include <time.h>

#include <algorithm>
#include <cassert>

namespace {

// CLOCK_MONOTONIC in nanoseconds; false when the clock can't be read.
bool monotonic_ns(int64_t& now) {
    timespec ts{};
    if (::clock_gettime(CLOCK_MONOTONIC, &ts) != 0)
        return false;
    now = static_cast<int64_t>(ts.tv_sec) * 1000000000 + static_cast<int64_t>(ts.tv_nsec);
    return true;
}

using port_t = boost::asio::serial_port_base;

} // namespace

CSerialConnection::rtu_timing_t CSerialConnection::rtu_timing(uint32_t baud, char_size_t char_size,
                                                              parity_t parity,
                                                              stop_bits_t stop_bits) {
    const double bit_time = 1.0 / (baud == 0 ? 9600 : baud);
    if (char_size < 5 || char_size > 8)
        char_size = 8;
    rtu_timing_t t{};
    t.t15 = static_cast<int64_t>(bit_time * 11 * 1.5 * 1000000000);
    t.char_bits = 1 + char_size + (parity == parity_t::odd || parity == parity_t::even ? 1 : 0) +
                  (stop_bits == stop_bits_t::two ? 2 : 1);
    t.char_time = static_cast<int64_t>(bit_time * t.char_bits * 1000000000);
    return t;
}

std::shared_ptr<CSerialConnection>
CSerialConnection::create(CIoManager& manager, std::unique_ptr<CProtocolHandler> handler,
                          const tk_string& device, framing_t framing) {
    std::shared_ptr<CSerialConnection> connection(
        new CSerialConnection(manager, device, std::move(framing)));
    connection->_pending = std::move(handler);
    return connection;
}

CSerialConnection::CSerialConnection(CIoManager& manager, const tk_string& device,
                                     framing_t framing)
    : CIoMessenger(manager), _port(get_io_service()), _device(device), _framing(std::move(framing)),
      _raw(read_size) {
    if (_framing.ascii) {
        _ascii.configure(_framing.ascii_timeout_us, _framing.served, _framing.counters);
        _framer = &_ascii;
    }
    boost::system::error_code ec;
    _port.open(device, ec);
    if (ec) {
        LOG_ERR(SS_SERIAL_IO, 0, "Couldn't open serial port '%s': %s", device.c_str(),
                ec.message().c_str());
        return;
    }
    LOG_INFO(SS_SERIAL_IO, 2, "Opened serial port '%s'", device.c_str());
}

CSerialConnection::~CSerialConnection() {
    try {
        close();
    } catch (const std::exception& e) {
        LOG_DEBUG(SS_SERIAL_IO, 4, "%s", e.what());
    }
}

std::shared_ptr<CSerialConnection> CSerialConnection::self() {
    return std::static_pointer_cast<CSerialConnection>(shared_from_this());
}

template <class Option>
void CSerialConnection::apply(const Option& option, const char* what, unsigned value) {
    boost::system::error_code ec;
    _port.set_option(option, ec);
    if (ec)
        LOG_ERR(SS_SERIAL_IO, 0, "Couldn't set %s %u on '%s': %s", what, value, _device.c_str(),
                ec.message().c_str());
    else
        LOG_DEBUG(SS_SERIAL_IO, 4, "'%s': %s %u", _device.c_str(), what, value);
}

void CSerialConnection::set_baud_rate(unsigned baud) {
    // Speed 0 would hang the line up instead.
    if (baud == 0) {
        LOG_ERR(SS_SERIAL_IO, 0, "Couldn't set baud rate 0 on '%s': not a line speed",
                _device.c_str());
        return;
    }
    apply(port_t::baud_rate(baud), "baud rate", baud);
}

void CSerialConnection::set_flow_control(flow_ctrl_t flow) {
    const unsigned value = static_cast<unsigned>(flow);
    switch (flow) {
    case flow_ctrl_t::none:
        return apply(port_t::flow_control(port_t::flow_control::none), "flow control", value);
    case flow_ctrl_t::software:
        return apply(port_t::flow_control(port_t::flow_control::software), "flow control", value);
    case flow_ctrl_t::hardware:
        return apply(port_t::flow_control(port_t::flow_control::hardware), "flow control", value);
    }
    LOG_ERR(SS_SERIAL_IO, 0, "Couldn't set flow control %u on '%s': no such setting", value,
            _device.c_str());
}

void CSerialConnection::set_char_size(char_size_t bits) {
    // The port would quietly take any other number as 5 bits.
    if (bits < 5 || bits > 8) {
        LOG_ERR(SS_SERIAL_IO, 0, "Couldn't set character size %u on '%s': 5 to 8 bits only", bits,
                _device.c_str());
        return;
    }
    apply(port_t::character_size(bits), "character size", bits);
}

void CSerialConnection::set_parity(parity_t parity) {
    const unsigned value = static_cast<unsigned>(parity);
    switch (parity) {
    case parity_t::none:
        return apply(port_t::parity(port_t::parity::none), "parity", value);
    case parity_t::odd:
        return apply(port_t::parity(port_t::parity::odd), "parity", value);
    case parity_t::even:
        return apply(port_t::parity(port_t::parity::even), "parity", value);
    }
    LOG_ERR(SS_SERIAL_IO, 0, "Couldn't set parity %u on '%s': no such setting", value,
            _device.c_str());
}

void CSerialConnection::set_stop_bits(stop_bits_t stop_bits) {
    const unsigned value = static_cast<unsigned>(stop_bits);
    switch (stop_bits) {
    case stop_bits_t::one:
        return apply(port_t::stop_bits(port_t::stop_bits::one), "stop bits", value);
    case stop_bits_t::one_and_half:
        return apply(port_t::stop_bits(port_t::stop_bits::onepointfive), "stop bits", value);
    case stop_bits_t::two:
        return apply(port_t::stop_bits(port_t::stop_bits::two), "stop bits", value);
    }
    LOG_ERR(SS_SERIAL_IO, 0, "Couldn't set stop bits %u on '%s': no such setting", value,
            _device.c_str());
}

void CSerialConnection::set_timing(uint32_t baud, char_size_t char_size, parity_t parity,
                                   stop_bits_t stop_bits) {
    if (baud == 0)
        LOG_ERR(SS_SERIAL_IO, 0, "Baud rate 0 on '%s': timing frames as at 9600 baud",
                _device.c_str());
    const rtu_timing_t timing = rtu_timing(baud, char_size, parity, stop_bits);
    _timerT15 = timing.t15;
    _char_time = timing.char_time;
    if (log_enabled(SS_SERIAL_IO, 4)) {
        LOG_DEBUG(SS_SERIAL_IO, 4, "_timerT15 = %lld nanoseconds",
                  static_cast<long long>(_timerT15));
        LOG_DEBUG(SS_SERIAL_IO, 4, "char_bits = %u", timing.char_bits);
        LOG_DEBUG(SS_SERIAL_IO, 4, "_char_time = %lld nanoseconds",
                  static_cast<long long>(_char_time));
    }
    // The gap between frames: 3.5 characters, but at least 1.75 ms at high baud rates.
    const int64_t frame_break = std::max<int64_t>(_char_time * 7 / 2, 1750000);
    _rtu.configure(_timerT15 / 1000, frame_break / 1000, _framing.served, _framing.length,
                   _framing.counters);
    reset_flags();
}

void CSerialConnection::start() {
    assert(_pending && is_open());
    attach_handler(std::move(_pending));
    read_more();
}

void CSerialConnection::close() {
    if (!_port.is_open())
        return;
    LOG_INFO(SS_SERIAL_IO, 2, "Closing serial port '%s'", _device.c_str());
    boost::system::error_code ec;
    _port.close(ec);
    if (ec)
        throw boost::system::system_error(ec, "close");
}

void CSerialConnection::reset_flags() {
    _waited = false;
    _unfed.clear();
    _framer->hunt();
    int64_t now = 0;
    _last_rx = monotonic_ns(now) ? now : 0;
}

void CSerialConnection::read_more() {
    assert(_port.is_open());
    auto me = self();
    _port.async_read_some(boost::asio::buffer(_raw),
                          [me](const boost::system::error_code& error, size_t count) {
                              me->handle_read(error, count);
                          });
}

void CSerialConnection::handle_read(const boost::system::error_code& error, size_t count) {
    LOG_STACK();
    if (error) {
        if (error == boost::asio::error::operation_aborted)
            return;
        LOG_ERR(SS_SERIAL_IO, 1, "Reading '%s': %s", _device.c_str(), error.message().c_str());
        remove();
        return;
    }
    assert(count <= _raw.size());
    LOG_DUMP(SS_SERIAL_IO, 6, _raw.data(), count, "Received");
    if (_echo.pending())
        count = drop_echo(count);
    int64_t now = 0;
    if (count == 0 || !monotonic_ns(now)) {
        read_more();
        return;
    }
    // The first of these bytes began (count - 1) characters before now.
    const int64_t gap =
        _waited ? 0 : now - _last_rx - _char_time * (static_cast<int64_t>(count) - 1);
    _waited = false;
    _last_rx = now;
    _unfed.assign(_raw.begin(), _raw.begin() + static_cast<std::ptrdiff_t>(count));
    feed(gap / 1000);
}

void CSerialConnection::feed(int64_t gap_us) {
    for (size_t i = 0; i < _unfed.size(); ++i) {
        if (_framer->feed(_unfed[i], i == 0 ? gap_us : 0)) {
            _unfed.erase(_unfed.begin(), _unfed.begin() + static_cast<std::ptrdiff_t>(i + 1));
            parse();
            return;
        }
    }
    if (!_unfed.empty() && _framer->hunting())
        LOG_DEBUG(SS_SERIAL_IO, 5, "'%s': dropped bytes while hunting for a frame",
                  _device.c_str());
    _unfed.clear();
    read_more();
}

void CSerialConnection::parse() {
    const std::vector<uint8_t>& frame = _framer->frame();
    act(_prot->received(frame.begin(), frame.end()));
}

void CSerialConnection::resumed() {
    if (_port.is_open())
        act(_prot->resume());
}

void CSerialConnection::act(const CProtocolHandler::action_t& action) {
    switch (action.kind) {
    case CProtocolHandler::action_t::SEND:
        if (_delay) {
            // The handler keeps the bytes until it is called again, which is after the write.
            auto me = self();
            const uint8_t* data = action.data;
            const size_t size = action.size;
            _delay->expires_after(_response_delay);
            _delay->async_wait([me, data, size](const boost::system::error_code& error) {
                if (!error)
                    me->write(data, size);
            });
            return;
        }
        write(action.data, action.size);
        return;
    case CProtocolHandler::action_t::WAIT:
        return; // resumed() follows
    case CProtocolHandler::action_t::CLOSE:
        remove();
        return;
    case CProtocolHandler::action_t::READ:
        // A frame the handler does not answer: the line is hunted afresh.
        LOG_DEBUG(SS_SERIAL_IO, 5, "'%s': a frame the handler did not answer", _device.c_str());
        // An ASCII frame needs no silence before it: the bytes after this one may hold one.
        if (_framing.ascii && !_unfed.empty()) {
            _framer->hunt();
            feed(0);
            return;
        }
        reset_flags();
        read_more();
        return;
    }
}

bool CSerialConnection::input_waiting() {
    int queued = 0;
    return ::ioctl(_port.native_handle(), FIONREAD, &queued) == 0 && queued > 0;
}

void CSerialConnection::write(const uint8_t* data, size_t size) {
    assert(size != 0);
    // A late answer for a port that has been closed meanwhile goes nowhere.
    if (!_port.is_open())
        return;
    const auto line = _framer->encode(data, size);
    data = line.first;
    size = line.second;
    LOG_DUMP(SS_SERIAL_IO, 6, data, size, "Sending");
    if (_local_echo)
        _echo.expect(data, size);
    auto me = self();
    // The handler keeps the bytes until it is called again, which is after the write.
    boost::asio::async_write(
        _port, boost::asio::buffer(data, size),
        [me](const boost::system::error_code& error, size_t) { me->handle_write(error); });
}

void CSerialConnection::handle_write(const boost::system::error_code& error) {
    LOG_STACK();
    if (error) {
        if (error == boost::asio::error::operation_aborted)
            return;
        LOG_ERR(SS_SERIAL_IO, 1, "Writing '%s': %s", _device.c_str(), error.message().c_str());
        remove();
        return;
    }
    // A request that came with the last one, or while the answer was being prepared or
    // written, followed a complete exchange: its start needs no silence.
    // Bytes that waited in the driver meanwhile have lost their timing: the first of them
    // continues whatever the leftovers began.
    const bool waited = input_waiting();
    if (!_unfed.empty()) {
        _framer->expect_frame();
        int64_t now = 0;
        _last_rx = monotonic_ns(now) ? now : 0;
        _waited = waited;
        feed(0);
        return;
    }
    // The master may send its next request as soon as it has the answer, which on a line
    // without wire time (a pseudo-terminal, a USB adapter's buffer) is sooner than the
    // silence a frame normally needs: the first byte after an answer may start a frame.
    reset_flags();
    _waited = waited;
    _framer->expect_frame();
    read_more();
}

void CSerialConnection::set_rs485(const CRs485::settings_t& settings) {
    if (_port.is_open())
        CRs485::apply(_port.native_handle(), settings, _device);
}

void CSerialConnection::set_response_delay(uint32_t ms) {
    _response_delay = std::chrono::milliseconds(ms);
    if (ms == 0)
        _delay.reset();
    else if (!_delay)
        _delay = std::make_unique<boost::asio::steady_timer>(get_io_service());
}

size_t CSerialConnection::drop_echo(size_t count) {
    bool mismatch = false;
    const size_t echo = _echo.strip(_raw.data(), count, mismatch);
    if (mismatch) {
        LOG_DEBUG(SS_SERIAL_IO, 3, "'%s': the echo differs from the answer sent", _device.c_str());
        if (_framing.counters != nullptr)
            ++_framing.counters->echo_errors;
    }
    std::copy(_raw.begin() + static_cast<std::ptrdiff_t>(echo),
              _raw.begin() + static_cast<std::ptrdiff_t>(count), _raw.begin());
    return count - echo;
}
