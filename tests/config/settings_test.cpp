#include "settings_store.h"

#include <boost/test/unit_test.hpp>

using toolkit::CElement;

BOOST_AUTO_TEST_SUITE(settings)

// Values the device normally has warn when missing; optional ones are narration, and the
// serial time-out matters only with an interface.
BOOST_FIXTURE_TEST_CASE(missing_values, CSettingsStore) {
    {
        CSubsystemLog log(SS_SETTINGS, 2);
        const CModbusSettings s = read_settings();
        const std::string text = log.text();
        BOOST_TEST(!s.zero_fill());
        BOOST_TEST(s.tcp().listener().allow.everyone());
        BOOST_TEST(count_of(text, "WARN") == 3u, text);
        BOOST_TEST(
            has_text(text, "WARN [0] CModbusSettings: '" + port_leaf + "' is missing; using 502"));
        BOOST_TEST(has_text(text, "TCP/Timeout/Value' is missing; using 1000"));
        BOOST_TEST(has_text(text, "No units configured"));
        BOOST_TEST(has_text(text, "INFO [2] CModbusSettings: '" + modbus_node +
                                      "Zero Fill Default/Value' is missing; using false"));
        BOOST_TEST(has_text(text, "INFO [2] CModbusSettings: '" + serial_timeout +
                                      "/Value' is missing; using 1000"));
    }
    put(interfaces + "ttyS0/Serial Port", "/dev/ttyS0");
    {
        CSubsystemLog log(SS_SETTINGS, 0);
        const CModbusSettings s = read_settings();
        const std::string text = log.text();
        BOOST_TEST(s.serial().interfaces().size() == 1u);
        BOOST_TEST(count_of(text, "WARN") == 4u, text);
        BOOST_TEST(has_text(text, "Serial/Timeout/Value' is missing; using 1000"));
        // Line settings are optional: their absence is below the default level.
        BOOST_TEST(!has_text(text, "Baud Rate"));
    }
    slave("ttyS0", "s", CElement::from_uint(3));
    CSubsystemLog log(SS_SETTINGS, 0);
    read_settings();
    BOOST_TEST(!has_text(log.text(), "No units configured"));
}

// A device may be a gateway only: the slaves behind its line answer, over RTU over TCP too.
BOOST_FIXTURE_TEST_CASE(a_gateway_line_is_something_to_serve, CSettingsStore) {
    put(interfaces + "ttyS1/Serial Port", "/dev/ttyS1");
    put(interfaces + "ttyS1/Role", "Gateway");
    put(interfaces + "ttyS1/Downstream", "5-7");
    put(modbus_node + "Interface Type/RTU over TCP/Port", uint64_t(1502));
    CSubsystemLog log(SS_SETTINGS, 0);
    const CModbusSettings s = read_settings();
    BOOST_TEST(!has_text(log.text(), "No units configured"), log.text());
    BOOST_TEST(!has_text(log.text(), "every request will be refused"), log.text());
    BOOST_REQUIRE(s.serial().interfaces().size() == 1u);
    BOOST_TEST(s.serial().interfaces()[0].gateway().downstream.count() == 3u);
}

// One setting at a time: a value that has no use falls back to its default; one that has a
// use but is likely a mistake is taken; either way with one warning at level 0 that names the
// leaf, the value found and the value used. Values a bool is written as are taken silently.
BOOST_FIXTURE_TEST_CASE(single_values, CSettingsStore) {
    put(interfaces + "ttyS0/Serial Port", "/dev/ttyS0");
    unit("u", CElement::from_uint(1));
    enum which_t { PORT, TCP_TIMEOUT, SERIAL_TIMEOUT, ZERO_FILL, BIND, MAX, IDLE, EVICT, ALLOW };
    const tk_string leaves[] = {port_leaf,
                                tcp_node + "Timeout/Value",
                                serial_timeout + "/Value",
                                modbus_node + "Zero Fill Default/Value",
                                tcp_node + "Bind Address/Value",
                                tcp_node + "Max Connections/Value",
                                tcp_node + "Idle Timeout/Value",
                                tcp_node + "Evict After/Value",
                                tcp_node + "Allow/Value"};
    const auto used = [](const CModbusSettings& s, which_t which) -> std::string {
        const CTcpListenerOptions& l = s.tcp().listener();
        const uint32_t numbers[] = {
            s.tcp().port(),    s.tcp().timeout(), s.serial().timeout(), s.zero_fill(), 0,
            l.max_connections, l.idle_timeout_s,  l.evict_after_s};
        return which == BIND    ? l.bind_address
               : which == ALLOW ? l.allow.str()
                                : std::to_string(numbers[which]);
    };
    const struct {
        which_t which;
        CElement value;
        const char* used;
        const char* text; // after the leaf; null: no warning
    } cases[] = {
        {PORT, CElement::from_float(1502.0), "1502", nullptr},
        {PORT, CElement::from_string("abc"), "502",
         "is \"abc\", not a whole number from 1 to 65535; using 502"},
        {PORT, CElement::from_int(-1), "502", "is -1, not"},
        {PORT, CElement::from_bool(true), "502", "is true, not"},
        {PORT, CElement::from_uint(65536), "502", "is 65536, not"},
        {PORT, CElement::from_uint(0), "502", "is 0, not"},
        {PORT, CElement::from_float(5020.5), "5020",
         "is 5020.5, which has a fraction; taken as 5020"},
        {SERIAL_TIMEOUT, CElement::from_float(250.0), "250", nullptr},
        {SERIAL_TIMEOUT, CElement::from_uint(0), "1000",
         "is 0, not a whole number from 1 up; using 1000"},
        {SERIAL_TIMEOUT, CElement::from_int(-1), "1000", "is -1, not"},
        {SERIAL_TIMEOUT, CElement::from_string("500"), "1000", "is \"500\", not"},
        {SERIAL_TIMEOUT, CElement::from_float(1e30), "1000", "is 1e+30, not"},
        {SERIAL_TIMEOUT, CElement::from_uint(5000000), "5000000",
         "is 5000000, more than 3600000; taken as it is"},
        {TCP_TIMEOUT, CElement::from_uint(0), "0", nullptr}, // no limit
        {TCP_TIMEOUT, CElement::from_int(-5), "1000", "is -5, not"},
        {TCP_TIMEOUT, CElement::from_string(""), "1000", "is \"\", not"},
        {TCP_TIMEOUT, CElement::from_float(0.5), "0", "is 0.5, which has a fraction; taken as 0"},
        {TCP_TIMEOUT, CElement::from_uint(1u << 31), "2147483648", "is 2147483648, more than"},
        {ZERO_FILL, CElement::from_bool(true), "1", nullptr},
        {ZERO_FILL, CElement::from_string("abc"), "0",
         "is \"abc\", not true or false; using false"},
        {ZERO_FILL, CElement::from_string("yes"), "1", nullptr},
        {ZERO_FILL, CElement::from_string("True"), "1", nullptr},
        {ZERO_FILL, CElement::from_string("off"), "0", nullptr},
        {ZERO_FILL, CElement::from_uint(2), "1", nullptr},
        {ZERO_FILL, CElement::from_int(-1), "1", nullptr},
        {ZERO_FILL, CElement::from_float(0.5), "1", nullptr},
        // Who may connect.
        {BIND, CElement::from_string("::1"), "::1", nullptr},
        {BIND, CElement::from_uint(1), "",
         "is 1, not an IPv4 or IPv6 address; using every address"},
        {MAX, CElement::from_uint(65535), "65535", nullptr},
        {MAX, CElement::from_uint(0), "64", "is 0, not a whole number from 1 to 65535; using 64"},
        {IDLE, CElement::from_float(86400.0), "86400", nullptr},
        {IDLE, CElement::from_int(-1), "0", "is -1, not a whole number from 0 to 86400; using 0"},
        {EVICT, CElement::from_uint(0), "0", nullptr},
        {EVICT, CElement::from_uint(86401), "10",
         "is 86401, not a whole number from 0 to 86400; using 10"},
        {ALLOW, CElement::from_string("10.0.0.0/8; ::1"), "10.0.0.0/8; ::1/128", nullptr},
        {ALLOW, CElement::from_uint(7), "nobody",
         "has entries that are not networks (address/prefix): \"7\"; they are left out, and as "
         "no entry is left, every client is refused"},
    };
    for (const auto& c : cases) {
        store.define(leaves[c.which], c.value.type(), c.value);
        CSubsystemLog log(SS_SETTINGS, 0);
        const CModbusSettings s = read_settings();
        const std::string text = log.text();
        const tk_string leaf = "'" + leaves[c.which] + "' ";
        BOOST_TEST(used(s, c.which) == c.used, leaf << c.value.str());
        BOOST_TEST(count_of(text, "WARN [0] CModbusSettings: " + leaf) == (c.text ? 1u : 0u), text);
        if (c.text)
            BOOST_TEST(has_text(text, leaf + c.text), text);
    }
}

BOOST_FIXTURE_TEST_CASE(tcp_units, CSettingsStore) {
    unit("a0", CElement::from_uint(0));
    unit("a255", CElement::from_uint(255), "/Dev", "a.eds;b.eds;");
    unit("b256", CElement::from_uint(256));
    unit("d_text", CElement::from_string("seven"));
    unit("e_no_device", CElement::from_uint(5), nullptr);
    unit("f_empty_device", CElement::from_uint(6), "");
    unit("g_no_eds", CElement::from_uint(7), "/Dev", nullptr);
    unit("h_empty_eds", CElement::from_uint(8), "/Dev", "");
    unit("i_only_separators", CElement::from_uint(9), "/Dev", ";;");
    put(unit_nodes + "j_no_id/Device Path", "/Dev");
    // Taken, each with a warning.
    unit("k_text_id", CElement::from_string("12"));
    unit("l_fraction", CElement::from_float(13.7));
    unit("m_relative", CElement::from_uint(14), "Dev");

    CSubsystemLog log(SS_SETTINGS, 0);
    const CModbusSettings s = read_settings();
    const std::string text = log.text();

    BOOST_REQUIRE(s.tcp().units().size() == 5u);
    BOOST_TEST(s.tcp().units()[0].unit_id() == 0u);
    const CModbusTcpUnitSettings& u = s.tcp().units()[1];
    BOOST_TEST(u.unit_id() == 255u);
    BOOST_TEST((u.eds_paths() == std::vector<tk_string>{"a.eds", "b.eds"}));
    BOOST_TEST(s.tcp().units()[2].unit_id() == 12u);
    BOOST_TEST(s.tcp().units()[3].unit_id() == 13u);
    BOOST_TEST(s.tcp().units()[4].device_path() == "Dev");
    for (const tk_string& line :
         {tk_string("k_text_id/Slave ID/Value' is \"12\", a number stored as text; taken as 12"),
          tk_string("l_fraction/Slave ID/Value' is 13.7, which has a fraction; taken as 13")})
        BOOST_TEST(has_text(text, "WARN [0] CModbusSettings: '" + unit_nodes + line), text);
    BOOST_TEST(has_text(text, "WARN [0] CModbusSettings: TCP unit 'm_relative': '" + unit_nodes +
                                  "m_relative/Device Path/Value' is \"Dev\", not an absolute "
                                  "store path"),
               text);
    // Each unit left out is an error at level 0 naming the leaf at fault.
    const tk_string range = ", not a whole number from 0 to 255";
    for (const tk_string& line :
         {"b256/Slave ID/Value' is 256" + range, "d_text/Slave ID/Value' is \"seven\"" + range,

          tk_string("e_no_device/Device Path/Value' is missing"),
          tk_string("f_empty_device/Device Path/Value' is empty"),
          tk_string("g_no_eds/EDS Paths/Value' is missing"),
          tk_string("h_empty_eds/EDS Paths/Value' is \"\", not a ';'-separated list"),
          tk_string("i_only_separators/EDS Paths/Value' is \";;\", not"),
          tk_string("j_no_id/Slave ID/Value' is missing")}) {
        const tk_string name = line.substr(0, line.find('/'));
        BOOST_TEST(has_text(text, "ERROR [0] CModbusSettings: TCP unit '" + name + "' left out: '" +
                                      unit_nodes + line),
                   line);
    }
    // Narration stays below the error level.
    BOOST_TEST(!has_text(text, "Unit ID: 0"));
}

BOOST_FIXTURE_TEST_CASE(line_settings, CSettingsStore) {
    const struct {
        const char* name;
        const char* flow;
        uint64_t char_size;
        const char* parity;
        const char* stop;
        unsigned want_flow, want_size, want_parity, want_stop;
        size_t warnings;
    } cases[] = {
        {"a", "Software", 5, "Odd", "1.5", 1, 5, 1, 1, 0},
        {"b", "Hardware", 9, "even", "2", 2, 8, 0, 2, 2},
        {"c", "hardware", 4, "Even", "3", 0, 8, 2, 0, 3},
        {"d", "None", 7, "None", "1", 0, 7, 0, 0, 0},
        {"e", "Foo", 8, "X", "1", 0, 8, 0, 0, 2},
    };
    for (const auto& c : cases) {
        const tk_string node = interfaces + c.name;
        put(node + "/Serial Port", "/dev/null");
        put(node + "/Flow Control", c.flow);
        put(node + "/Char Size", c.char_size);
        put(node + "/Parity", c.parity);
        put(node + "/Stop Bits", c.stop);
    }
    // Only numbers are baud rates.
    put(interfaces + "a/Baud Rate", "19200");
    put(interfaces + "b/Baud Rate", 115200);
    put(interfaces + "e/Baud Rate", CElement::from_int(-1));

    CSubsystemLog log(SS_SETTINGS, 0);
    const CModbusSettings s = read_settings();
    const std::string text = log.text();
    BOOST_REQUIRE(s.serial().interfaces().size() == 5u);
    for (size_t i = 0; i < 5; ++i) {
        const auto& iface = s.serial().interfaces()[i];
        const auto& c = cases[i];
        BOOST_TEST(iface.number() == i);
        BOOST_TEST(iface.flow_control() == c.want_flow, c.name);
        BOOST_TEST(iface.char_size() == c.want_size, c.name);
        BOOST_TEST(iface.parity() == c.want_parity, c.name);
        BOOST_TEST(iface.stop_bits() == c.want_stop, c.name);
        const size_t baud_warning = c.name[0] == 'a' || c.name[0] == 'e' ? 1 : 0;
        BOOST_TEST(count_of(text, "WARN [0] CModbusSettings: '" + interfaces + c.name + "/") ==
                       c.warnings + baud_warning,
                   c.name);
    }
    BOOST_TEST(s.serial().interfaces()[0].baud_rate() == 9600u);
    BOOST_TEST(s.serial().interfaces()[1].baud_rate() == 115200u);
    BOOST_TEST(s.serial().interfaces()[4].baud_rate() == 9600u);
    for (const char* line :
         {"a/Baud Rate/Value' is \"19200\", not a whole number from 50 to 4000000; using 9600",
          "b/Char Size/Value' is 9, not a whole number from 5 to 8; using 8",
          "b/Parity/Value' is \"even\", not one of None, Odd, Even; using None",
          "c/Flow Control/Value' is \"hardware\", not one of None, Software, Hardware; using None",
          "c/Stop Bits/Value' is \"3\", not one of 1, 1.5, 2; using 1",
          "e/Parity/Value' is \"X\", not", "e/Flow Control/Value' is \"Foo\", not",
          "e/Baud Rate/Value' is -1, not"})
        BOOST_TEST(has_text(text, interfaces + line), line);
}

// Interfaces without a port are left out and take no number. Slaves are read as TCP units
// are, with addresses from 1 to 247.
BOOST_FIXTURE_TEST_CASE(interfaces_and_slaves, CSettingsStore) {
    put(interfaces + "a/Serial Port", "/dev/ttyS0");
    slave("a", "s0", CElement::from_uint(0));
    slave("a", "s1", CElement::from_uint(1));
    slave("a", "s247", CElement::from_uint(247), "/Dev", "x.eds;y.eds");
    slave("a", "s248", CElement::from_uint(248));
    put(interfaces + "a/Mappings/x_no_address/Device Path", "/Dev");
    put(interfaces + "b/Baud Rate", 9600);
    slave("b", "s", CElement::from_uint(3));
    put(interfaces + "c/Serial Port", "/dev/ttyS2");
    put(interfaces + "d/Serial Port", "");
    CSubsystemLog log(SS_SETTINGS, 0);
    const CModbusSettings s = read_settings();
    const std::string text = log.text();
    BOOST_TEST(has_text(text, "Serial interface 'b' left out: '" + interfaces +
                                  "b/Serial Port/Value' is missing"));
    BOOST_TEST(has_text(text, "Serial interface 'd' left out: '" + interfaces +
                                  "d/Serial Port/Value' is empty"));
    BOOST_REQUIRE(s.serial().interfaces().size() == 2u);
    BOOST_TEST(s.serial().interfaces()[0].serial_port() == "/dev/ttyS0");
    BOOST_TEST(s.serial().interfaces()[0].number() == 0u);
    BOOST_TEST(s.serial().interfaces()[1].serial_port() == "/dev/ttyS2");
    BOOST_TEST(s.serial().interfaces()[1].number() == 1u);

    const auto& slaves = s.serial().interfaces()[0].slaves();
    BOOST_REQUIRE(slaves.size() == 2u);
    BOOST_TEST(slaves[0].slave_address() == 1u);
    BOOST_TEST(slaves[1].slave_address() == 247u);
    BOOST_TEST((slaves[1].eds_paths() == std::vector<tk_string>{"x.eds", "y.eds"}));
    for (const tk_string& line :
         {tk_string("s0/Slave ID/Value' is 0, not a whole number from 1 to 247"),
          tk_string("s248/Slave ID/Value' is 248, not"),
          tk_string("x_no_address/Slave ID/Value' is missing")}) {
        const tk_string name = line.substr(0, line.find('/'));
        BOOST_TEST(has_text(text, "Serial slave '" + name + "' of interface 'a' left out: '" +
                                      interfaces + "a/Mappings/" + line),
                   line);
    }
}

BOOST_AUTO_TEST_SUITE_END()
