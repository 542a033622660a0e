#include "config/settings_store.h"

#include <boost/test/unit_test.hpp>

using toolkit::CElement;

namespace {

const tk_string rtu_over_tcp = modbus_node + "Interface Type/RTU over TCP/";
const tk_string udp = modbus_node + "Interface Type/UDP/";

} // namespace

BOOST_AUTO_TEST_SUITE(framing_settings)

// RTU over TCP and UDP are off without a port, and RTU over TCP's units are not even read
// then; with one, its units are its own, and a port without a usable unit is a warning.
BOOST_FIXTURE_TEST_CASE(network_framings, CSettingsStore) {
    unit("u", CElement::from_uint(1));
    put(rtu_over_tcp + "Mappings/r/Slave ID", uint64_t(7));
    put(rtu_over_tcp + "Mappings/r/Device Path", "/Dev");
    put(rtu_over_tcp + "Mappings/r/EDS Paths", "a.eds");
    {
        const CModbusSettings s = read_settings();
        BOOST_TEST(s.tcp().rtu_over_tcp_port() == 0u);
        BOOST_TEST(s.tcp().rtu_over_tcp_units().empty());
        BOOST_TEST(s.tcp().udp_port() == 0u);
        BOOST_TEST(s.tcp().udp_rate_limit() == 1000u);
    }
    put(rtu_over_tcp + "Port", uint64_t(1502));
    put(udp + "Port", uint64_t(1503));
    put(udp + "Rate Limit", uint64_t(0));
    {
        CSubsystemLog log(SS_SETTINGS, 0);
        const CModbusSettings s = read_settings();
        const std::string text = log.text();
        BOOST_TEST(!has_text(text, "RTU over TCP"), text);
        BOOST_TEST(!has_text(text, "UDP"), text);
        BOOST_TEST(s.tcp().rtu_over_tcp_port() == 1502u);
        BOOST_REQUIRE(s.tcp().rtu_over_tcp_units().size() == 1u);
        BOOST_TEST(s.tcp().rtu_over_tcp_units()[0].unit_id() == 7u);
        BOOST_TEST(s.tcp().units().size() == 1u);
        BOOST_TEST(s.tcp().udp_port() == 1503u);
        BOOST_TEST(s.tcp().udp_rate_limit() == 0u);
    }
    put(rtu_over_tcp + "Mappings/r/Slave ID", "seven");
    put(udp + "Rate Limit", uint64_t(2000000));
    CSubsystemLog log(SS_SETTINGS, 0);
    const CModbusSettings s = read_settings();
    const std::string text = log.text();
    BOOST_TEST(s.tcp().rtu_over_tcp_units().empty());
    BOOST_TEST(has_text(text, "RTU over TCP port 1502 is set, but no valid unit"), text);
    BOOST_TEST(s.tcp().udp_rate_limit() == 1000u);
    BOOST_TEST(has_text(text, "Rate Limit/Value' is 2000000"), text);
}

// Protocol picks the framing by its exact name; an ASCII line has an inter-character time-out
// and at least 7 data bits. Wrong values fall back with a warning naming the leaf.
BOOST_FIXTURE_TEST_CASE(ascii_lines, CSettingsStore) {
    const tk_string line = interfaces + "ttyS0/";
    put(line + "Serial Port", "/dev/ttyS0");
    {
        const CModbusSettings s = read_settings();
        BOOST_REQUIRE(s.serial().interfaces().size() == 1u);
        BOOST_TEST(s.serial().interfaces()[0].protocol() ==
                   CModbusSerialInterfaceSettings::PROTOCOL_RTU);
    }
    put(line + "Protocol", "ASCII");
    put(line + "Char Size", uint64_t(7));
    put(line + "Inter-Character Timeout", uint64_t(250));
    {
        CSubsystemLog log(SS_SETTINGS, 0);
        const CModbusSettings s = read_settings();
        const CModbusSerialInterfaceSettings& i = s.serial().interfaces().at(0);
        BOOST_TEST(i.protocol() == CModbusSerialInterfaceSettings::PROTOCOL_ASCII);
        BOOST_TEST(i.char_size() == 7u);
        BOOST_TEST(i.char_timeout_ms() == 250u);
        BOOST_TEST(!has_text(log.text(), "ttyS0"), log.text());
    }
    put(line + "Char Size", uint64_t(6));
    put(line + "Inter-Character Timeout", uint64_t(0));
    {
        CSubsystemLog log(SS_SETTINGS, 0);
        const CModbusSettings s = read_settings();
        const std::string text = log.text();
        const CModbusSerialInterfaceSettings& i = s.serial().interfaces().at(0);
        BOOST_TEST(i.char_size() == 7u);
        BOOST_TEST(i.char_timeout_ms() == 1000u);
        BOOST_TEST(has_text(text, "an ASCII line needs 7 or 8 data bits; using 7"), text);
        BOOST_TEST(has_text(text, "Inter-Character Timeout/Value' is 0"), text);
    }
    put(line + "Protocol", "ascii");
    CSubsystemLog log(SS_SETTINGS, 0);
    const CModbusSettings s = read_settings();
    BOOST_TEST(s.serial().interfaces().at(0).protocol() ==
               CModbusSerialInterfaceSettings::PROTOCOL_RTU);
    BOOST_TEST(has_text(log.text(), "Protocol/Value' is \"ascii\""), log.text());
}

BOOST_AUTO_TEST_SUITE_END()
