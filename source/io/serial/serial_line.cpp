#include "io/serial/serial_line.h"

#include "util/log.h"

#include <sys/ioctl.h>

namespace {

using port_t = boost::asio::serial_port_base;
using C = CSerialConnection;

port_t::parity::type parity_of(C::parity_t parity) {
    switch (parity) {
    case C::parity_t::odd:
        return port_t::parity::odd;
    case C::parity_t::even:
        return port_t::parity::even;
    case C::parity_t::none:
        break;
    }
    return port_t::parity::none;
}

port_t::stop_bits::type stop_bits_of(C::stop_bits_t stop_bits) {
    switch (stop_bits) {
    case C::stop_bits_t::one_and_half:
        return port_t::stop_bits::onepointfive;
    case C::stop_bits_t::two:
        return port_t::stop_bits::two;
    case C::stop_bits_t::one:
        break;
    }
    return port_t::stop_bits::one;
}

port_t::flow_control::type flow_of(C::flow_ctrl_t flow) {
    switch (flow) {
    case C::flow_ctrl_t::software:
        return port_t::flow_control::software;
    case C::flow_ctrl_t::hardware:
        return port_t::flow_control::hardware;
    case C::flow_ctrl_t::none:
        break;
    }
    return port_t::flow_control::none;
}

} // namespace

CSerialLine::CSerialLine(boost::asio::io_context& io, const std::string& device,
                         const settings_t& settings)
    : _port(io), _device(device), _timing(C::rtu_timing(settings.baud, settings.char_size,
                                                        settings.parity, settings.stop_bits)) {
    boost::system::error_code ec;
    _port.open(device, ec);
    if (ec) {
        LOG_ERR(SS_SERIAL_IO, 0, "Couldn't open serial port '%s': %s", device.c_str(),
                ec.message().c_str());
        return;
    }
    LOG_INFO(SS_SERIAL_IO, 2, "Opened serial port '%s'", device.c_str());
    // The settings were range-checked when read; the port still has the last word.
    apply(port_t::baud_rate(settings.baud), "baud rate", settings.baud);
    apply(port_t::flow_control(flow_of(settings.flow)), "flow control",
          static_cast<unsigned>(settings.flow));
    if (settings.char_size >= 5 && settings.char_size <= 8)
        apply(port_t::character_size(settings.char_size), "character size", settings.char_size);
    apply(port_t::parity(parity_of(settings.parity)), "parity",
          static_cast<unsigned>(settings.parity));
    apply(port_t::stop_bits(stop_bits_of(settings.stop_bits)), "stop bits",
          static_cast<unsigned>(settings.stop_bits));
    CRs485::apply(_port.native_handle(), settings.rs485, device);
}

template <class Option>
void CSerialLine::apply(const Option& option, const char* what, unsigned value) {
    boost::system::error_code ec;
    _port.set_option(option, ec);
    if (ec)
        LOG_ERR(SS_SERIAL_IO, 0, "Couldn't set %s %u on '%s': %s", what, value, _device.c_str(),
                ec.message().c_str());
}

bool CSerialLine::input_waiting() {
    int queued = 0;
    return _port.is_open() && ::ioctl(_port.native_handle(), FIONREAD, &queued) == 0 && queued > 0;
}

void CSerialLine::close() {
    if (!_port.is_open())
        return;
    LOG_INFO(SS_SERIAL_IO, 2, "Closing serial port '%s'", _device.c_str());
    boost::system::error_code ec;
    _port.close(ec);
}
