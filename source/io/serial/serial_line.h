#pragma once
// An open serial port with its line settings applied, for the master side of a line
// (CSerialMaster). Failing to open is logged and reported by is_open(); a setting the port
// refuses is logged and the port keeps its previous value. The frame format's types and
// character timing are the slave side's (CSerialConnection), so both sides time a line alike.
#include "io/serial/rs485.h"
#include "io/serial/serial_connection.h"

#include <boost/asio/serial_port.hpp>

#include <string>

class CSerialLine {
public:
    struct settings_t {
        uint32_t baud = 9600;
        CSerialConnection::char_size_t char_size = 8;
        CSerialConnection::parity_t parity = CSerialConnection::parity_t::none;
        CSerialConnection::stop_bits_t stop_bits = CSerialConnection::stop_bits_t::one;
        CSerialConnection::flow_ctrl_t flow = CSerialConnection::flow_ctrl_t::none;
        CRs485::settings_t rs485;
    };

    // Opens device and applies settings (RS-485 last, once the line is set).
    CSerialLine(boost::asio::io_context& io, const std::string& device, const settings_t& settings);

    bool is_open() const { return _port.is_open(); }
    boost::asio::serial_port& port() { return _port; }
    const std::string& device() const { return _device; }
    const CSerialConnection::rtu_timing_t& timing() const { return _timing; }
    // Whether bytes wait in the driver.
    bool input_waiting();
    void close();

private:
    template <class Option> void apply(const Option& option, const char* what, unsigned value);

    boost::asio::serial_port _port;
    std::string _device;
    CSerialConnection::rtu_timing_t _timing;
};
