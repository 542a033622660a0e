#include "data/sample_store.h"
#include "modbus/config/modbus_settings.h"
#include "support/subsystem_log.h"

#include <boost/test/unit_test.hpp>

#include <limits>

using toolkit::CElement;

namespace {

const tk_string units_node = "/Software/Data Servers/Modbus/Interface Type/TCP/Mappings/";
const tk_string interfaces = "/Software/Data Servers/Modbus/Interface Type/Serial/Interface/";
const char* const port_path =
    "/Software/System Settings/Network/Firewall Settings/Protocol/Modbus/Port/Value";

// A store holding only what each case defines.
struct CSettingsStore {
    CTestStore store;

    // A setting node's value leaf.
    void put(const tk_string& node, const CElement& value) {
        store.define(node + "/Value", value.type(), value);
    }
    void put(const tk_string& node, const char* text) { put(node, CElement::from_string(text)); }
    void put(const tk_string& node, uint64_t number) { put(node, CElement::from_uint(number)); }

    void unit(const tk_string& name, const CElement& id, const char* device = "/Dev",
              const char* eds = "a.eds") {
        put(units_node + name + "/Slave ID", id);
        if (device)
            put(units_node + name + "/Device Path", device);
        if (eds)
            put(units_node + name + "/EDS Paths", eds);
    }
    void slave(const tk_string& iface, const tk_string& name, const CElement& addr,
               const char* device = "/Dev", const char* eds = "a.eds") {
        const tk_string node = interfaces + iface + "/Mappings/" + name;
        put(node + "/Slave ID", addr);
        if (device)
            put(node + "/Device Path", device);
        if (eds)
            put(node + "/EDS Paths", eds);
    }
    // Something in the store, so that it opens as a configured device would.
    CSettingsStore() {
        store.define("/Other/Value", CElement::TYPE_BOOL, CElement::from_bool(true));
    }
};

CModbusSettings read_settings() {
    CCdsHandle cds;
    return CModbusSettings(cds);
}

} // namespace

BOOST_AUTO_TEST_SUITE(settings)

BOOST_AUTO_TEST_CASE(sample_tree) {
    CTestStore store;
    load_sample_store(store, "/dev/ttyTEST0");
    CSubsystemLog log(SS_SETTINGS, 3);
    const CModbusSettings s = read_settings();
    const std::string text = log.text();

    BOOST_TEST(!s.zero_fill());
    BOOST_TEST(s.tcp().port() == 1502u);
    BOOST_TEST(s.tcp().timeout() == 1000u);
    BOOST_REQUIRE(s.tcp().units().size() == 2u);
    const CModbusTcpUnitSettings& u1 = s.tcp().units()[0];
    BOOST_TEST(u1.unit_id() == 1u);
    BOOST_TEST(u1.device_path() == "/Devices/UPS");
    BOOST_REQUIRE(u1.eds_paths().size() == 2u);
    BOOST_TEST(u1.eds_paths()[0] == sample_data("eds/ups.eds"));
    BOOST_TEST(u1.eds_paths()[1] == sample_data("eds/ups_extra.eds"));
    BOOST_TEST(s.tcp().units()[1].unit_id() == 2u);
    BOOST_TEST(s.tcp().units()[1].device_path() == "/Devices/UPS2");

    BOOST_TEST(s.serial().timeout() == 500u);
    BOOST_REQUIRE(s.serial().interfaces().size() == 1u);
    const CModbusSerialInterfaceSettings& com = s.serial().interfaces()[0];
    BOOST_TEST(com.number() == 0u);
    BOOST_TEST(com.serial_port() == "/dev/ttyTEST0");
    BOOST_TEST(com.baud_rate() == 19200u);
    BOOST_TEST(com.flow_control() == 0u);
    BOOST_TEST(com.char_size() == 8u);
    BOOST_TEST(com.parity() == 2u);
    BOOST_TEST(com.stop_bits() == 0u);
    BOOST_REQUIRE(com.slaves().size() == 2u);
    BOOST_TEST(com.slaves()[0].slave_address() == 1u);
    BOOST_TEST(com.slaves()[1].slave_address() == 17u);
    BOOST_TEST(com.slaves()[1].device_path() == "/Devices/Meter");
    BOOST_TEST(com.slaves()[1].eds_paths().size() == 1u);

    for (const char* line :
         {"Zero fill default: 0", "TCP listening port: 1502", "TCP timeout: 1000",
          "TCP Unit1: Unit ID: 1", "TCP Unit2: device path: '/Devices/UPS2'", "Serial timeout: 500",
          "Serial interface number COM1: serial device name: '/dev/ttyTEST0'",
          "Serial COM1: Baud Rate: 19200", "Serial COM1: Parity : 2", "Serial COM1: Stop Bits: 0",
          "idstr: COM1,  subnode: Slave2", "iface_id: COM1, path: Slave2",
          "Serial COM1:Slave2: slave address: 17",
          "Serial COM1:Slave2: device path: /Devices/Meter"})
        BOOST_TEST(has_text(text, line), line);
    BOOST_TEST(count_of(text, "TCP Unit1: EDS: '") == 2u);
}

BOOST_FIXTURE_TEST_CASE(defaults_when_leaves_are_missing, CSettingsStore) {
    put(interfaces + "ttyS0/Serial Port", "/dev/ttyS0");
    const CModbusSettings s = read_settings();
    BOOST_TEST(!s.zero_fill());
    BOOST_TEST(s.tcp().port() == 502u);
    BOOST_TEST(s.tcp().timeout() == 1000u);
    BOOST_TEST(s.tcp().units().empty());
    BOOST_TEST(s.serial().timeout() == 1000u);
    BOOST_REQUIRE(s.serial().interfaces().size() == 1u);
    const CModbusSerialInterfaceSettings& i = s.serial().interfaces()[0];
    BOOST_TEST(i.baud_rate() == 9600u);
    BOOST_TEST(i.flow_control() == 0u);
    BOOST_TEST(i.char_size() == 8u);
    BOOST_TEST(i.parity() == 0u);
    BOOST_TEST(i.stop_bits() == 0u);
    BOOST_TEST(i.slaves().empty());
}

BOOST_FIXTURE_TEST_CASE(global_values, CSettingsStore) {
    put("/Software/Data Servers/Modbus/Zero Fill Default", CElement::from_bool(true));
    put("/Software/Data Servers/Modbus/Interface Type/TCP/Timeout", CElement::from_uint(0));
    put("/Software/Data Servers/Modbus/Interface Type/Serial/Timeout", CElement::from_float(250.0));
    store.define(port_path, CElement::TYPE_FLOAT, CElement::from_float(1502.0));
    unit("u", CElement::from_uint(1));
    CSubsystemLog log(SS_SETTINGS, 0);
    const CModbusSettings s = read_settings();
    BOOST_TEST(s.zero_fill());
    BOOST_TEST(s.tcp().port() == 1502u);
    BOOST_TEST(s.tcp().timeout() == 0u); // no limit
    BOOST_TEST(s.serial().timeout() == 250u);
    BOOST_TEST(!has_text(log.text(), "WARN"));
}

// A value that has no use falls back to its default; one that has a use but is likely a
// mistake is taken; either way with one warning at level 0 that names the leaf, the value
// found and the value used. Values a bool is written as are taken silently.
BOOST_FIXTURE_TEST_CASE(wrong_global_values_warn, CSettingsStore) {
    const tk_string tcp_timeout = "/Software/Data Servers/Modbus/Interface Type/TCP/Timeout";
    const tk_string serial_timeout = "/Software/Data Servers/Modbus/Interface Type/Serial/Timeout";
    const tk_string zero_fill = "/Software/Data Servers/Modbus/Zero Fill Default";
    put(interfaces + "ttyS0/Serial Port", "/dev/ttyS0");
    unit("u", CElement::from_uint(1));
    enum which_t { PORT, TCP_TIMEOUT, SERIAL_TIMEOUT, ZERO_FILL };
    const struct {
        which_t which;
        CElement value;
        uint32_t used;
        const char* text; // after the leaf; null: no warning
    } cases[] = {
        {PORT, CElement::from_string("abc"), 502,
         "is \"abc\", not a whole number from 1 to 65535; using 502"},
        {PORT, CElement::from_int(-1), 502, "is -1, not"},
        {PORT, CElement::from_bool(true), 502, "is true, not"},
        {PORT, CElement::from_uint(65536), 502, "is 65536, not"},
        {PORT, CElement::from_uint(0), 502, "is 0, not"},
        {PORT, CElement::from_float(5020.5), 5020, "is 5020.5, which has a fraction; taken as 5020"},
        {SERIAL_TIMEOUT, CElement::from_uint(0), 1000,
         "is 0, not a whole number from 1 up; using 1000"},
        {SERIAL_TIMEOUT, CElement::from_int(-1), 1000, "is -1, not"},
        {SERIAL_TIMEOUT, CElement::from_string("500"), 1000, "is \"500\", not"},
        {SERIAL_TIMEOUT, CElement::from_float(1e30), 1000, "is 1e+30, not"},
        {SERIAL_TIMEOUT, CElement::from_uint(5000000), 5000000,
         "is 5000000, more than 3600000; taken as it is"},
        {TCP_TIMEOUT, CElement::from_int(-5), 1000, "is -5, not"},
        {TCP_TIMEOUT, CElement::from_string(""), 1000, "is \"\", not"},
        {TCP_TIMEOUT, CElement::from_float(0.5), 0, "is 0.5, which has a fraction; taken as 0"},
        {TCP_TIMEOUT, CElement::from_uint(1u << 31), 1u << 31, "is 2147483648, more than"},
        {ZERO_FILL, CElement::from_string("abc"), 0, "is \"abc\", not true or false; using false"},
        {ZERO_FILL, CElement::from_string("yes"), 1, nullptr},
        {ZERO_FILL, CElement::from_string("True"), 1, nullptr},
        {ZERO_FILL, CElement::from_string("off"), 0, nullptr},
        {ZERO_FILL, CElement::from_uint(2), 1, nullptr},
        {ZERO_FILL, CElement::from_int(-1), 1, nullptr},
        {ZERO_FILL, CElement::from_float(0.5), 1, nullptr},
    };
    for (const auto& c : cases) {
        store.define(port_path, CElement::TYPE_UINT, CElement::from_uint(502));
        put(serial_timeout, CElement::from_uint(1000));
        put(tcp_timeout, CElement::from_uint(1000));
        put(zero_fill, CElement::from_bool(false));
        const tk_string leaf = c.which == PORT             ? tk_string(port_path)
                               : c.which == TCP_TIMEOUT    ? tcp_timeout + "/Value"
                               : c.which == SERIAL_TIMEOUT ? serial_timeout + "/Value"
                                                           : zero_fill + "/Value";
        if (c.which == PORT)
            store.define(port_path, c.value.type(), c.value);
        else
            put(leaf.substr(0, leaf.size() - 6), c.value);
        CSubsystemLog log(SS_SETTINGS, 0);
        const CModbusSettings s = read_settings();
        const std::string text = log.text();
        const uint32_t used = c.which == PORT             ? s.tcp().port()
                              : c.which == TCP_TIMEOUT    ? s.tcp().timeout()
                              : c.which == SERIAL_TIMEOUT ? s.serial().timeout()
                                                          : uint32_t(s.zero_fill());
        BOOST_TEST(used == c.used, leaf << " " << c.value.str());
        BOOST_TEST(count_of(text, "WARN [0] CModbusSettings: ") == (c.text ? 1u : 0u), text);
        if (c.text)
            BOOST_TEST(has_text(text, "'" + leaf + "' " + c.text), text);
    }
}

// Values the device normally has warn when missing; optional ones are narration, and the
// serial time-out matters only with an interface.
BOOST_FIXTURE_TEST_CASE(missing_values, CSettingsStore) {
    unit("u", CElement::from_uint(1));
    {
        CSubsystemLog log(SS_SETTINGS, 2);
        read_settings();
        const std::string text = log.text();
        BOOST_TEST(count_of(text, "WARN") == 2u, text);
        BOOST_TEST(has_text(text, "WARN [0] CModbusSettings: '" + tk_string(port_path) +
                                      "' is missing; using 502"));
        BOOST_TEST(has_text(text, "TCP/Timeout/Value' is missing; using 1000"));
        BOOST_TEST(has_text(text, "INFO [2] CModbusSettings: '/Software/Data Servers/Modbus/"
                                  "Zero Fill Default/Value' is missing; using false"));
        BOOST_TEST(has_text(text, "INFO [2] CModbusSettings: '/Software/Data Servers/Modbus/"
                                  "Interface Type/Serial/Timeout/Value' is missing; using 1000"));
    }
    put(interfaces + "ttyS0/Serial Port", "/dev/ttyS0");
    CSubsystemLog log(SS_SETTINGS, 0);
    read_settings();
    const std::string text = log.text();
    BOOST_TEST(count_of(text, "WARN") == 3u, text);
    BOOST_TEST(has_text(text, "Serial/Timeout/Value' is missing; using 1000"));
    // Line settings are optional: their absence is below the default level.
    BOOST_TEST(!has_text(text, "Baud Rate"));
}

BOOST_FIXTURE_TEST_CASE(no_units_is_a_warning, CSettingsStore) {
    put(interfaces + "ttyS0/Serial Port", "/dev/ttyS0");
    {
        CSubsystemLog log(SS_SETTINGS, 0);
        read_settings();
        BOOST_TEST(has_text(log.text(), "No units configured"));
    }
    slave("ttyS0", "s", CElement::from_uint(3));
    CSubsystemLog log(SS_SETTINGS, 0);
    read_settings();
    BOOST_TEST(!has_text(log.text(), "No units configured"));
}

BOOST_FIXTURE_TEST_CASE(tcp_units, CSettingsStore) {
    unit("a0", CElement::from_uint(0));
    unit("a255", CElement::from_uint(255), "/Dev", "a.eds;b.eds;");
    unit("b256", CElement::from_uint(256));
    unit("c_negative", CElement::from_int(-1));
    unit("d_text", CElement::from_string("seven"));
    unit("d_wide", CElement::from_uint(4294967297u));
    unit("e_no_device", CElement::from_uint(5), nullptr);
    unit("f_empty_device", CElement::from_uint(6), "");
    unit("g_no_eds", CElement::from_uint(7), "/Dev", nullptr);
    unit("h_empty_eds", CElement::from_uint(8), "/Dev", "");
    unit("i_only_separators", CElement::from_uint(9), "/Dev", ";;");
    put(units_node + "j_no_id/Device Path", "/Dev");
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
        BOOST_TEST(has_text(text, "WARN [0] CModbusSettings: '" + units_node + line), text);
    BOOST_TEST(has_text(text, "WARN [0] CModbusSettings: TCP unit 'm_relative': '" + units_node +
                                  "m_relative/Device Path/Value' is \"Dev\", not an absolute "
                                  "store path"),
               text);
    // Each unit left out is an error at level 0 naming the leaf at fault.
    const tk_string range = ", not a whole number from 0 to 255";
    for (const tk_string& line :
         {"b256/Slave ID/Value' is 256" + range, "c_negative/Slave ID/Value' is -1" + range,
          "d_text/Slave ID/Value' is \"seven\"" + range,
          "d_wide/Slave ID/Value' is 4294967297" + range,
          tk_string("e_no_device/Device Path/Value' is missing"),
          tk_string("f_empty_device/Device Path/Value' is empty"),
          tk_string("g_no_eds/EDS Paths/Value' is missing"),
          tk_string("h_empty_eds/EDS Paths/Value' is \"\", not a ';'-separated list"),
          tk_string("i_only_separators/EDS Paths/Value' is \";;\", not"),
          tk_string("j_no_id/Slave ID/Value' is missing")}) {
        const tk_string name = line.substr(0, line.find('/'));
        BOOST_TEST(has_text(text, "ERROR [0] CModbusSettings: TCP unit '" + name + "' left out: '" +
                                      units_node + line),
                   line);
    }
    // Narration stays below the error level.
    BOOST_TEST(!has_text(text, "Unit ID: 0"));
}

BOOST_FIXTURE_TEST_CASE(serial_slaves, CSettingsStore) {
    put(interfaces + "ttyS0/Serial Port", "/dev/ttyS0");
    slave("ttyS0", "s0", CElement::from_uint(0));
    slave("ttyS0", "s1", CElement::from_uint(1));
    slave("ttyS0", "s247", CElement::from_uint(247), "/Dev", "x.eds;y.eds");
    slave("ttyS0", "s248", CElement::from_uint(248));
    slave("ttyS0", "t_no_device", CElement::from_uint(2), nullptr);
    slave("ttyS0", "u_empty_device", CElement::from_uint(3), "");
    slave("ttyS0", "v_no_eds", CElement::from_uint(4), "/Dev", nullptr);
    slave("ttyS0", "w_empty_eds", CElement::from_uint(5), "/Dev", "");
    put(interfaces + "ttyS0/Mappings/x_no_address/Device Path", "/Dev");

    CSubsystemLog log(SS_SETTINGS, 0);
    const CModbusSettings s = read_settings();
    const std::string text = log.text();

    BOOST_REQUIRE(s.serial().interfaces().size() == 1u);
    const auto& slaves = s.serial().interfaces()[0].slaves();
    BOOST_REQUIRE(slaves.size() == 2u);
    BOOST_TEST(slaves[0].slave_address() == 1u);
    BOOST_TEST(slaves[1].slave_address() == 247u);
    BOOST_TEST((slaves[1].eds_paths() == std::vector<tk_string>{"x.eds", "y.eds"}));
    const tk_string node = interfaces + "ttyS0/Mappings/";
    for (const tk_string& line :
         {tk_string("s0/Slave ID/Value' is 0, not a whole number from 1 to 247"),
          tk_string("s248/Slave ID/Value' is 248, not a whole number from 1 to 247"),
          tk_string("t_no_device/Device Path/Value' is missing"),
          tk_string("u_empty_device/Device Path/Value' is empty"),
          tk_string("v_no_eds/EDS Paths/Value' is missing"),
          tk_string("w_empty_eds/EDS Paths/Value' is \"\""),
          tk_string("x_no_address/Slave ID/Value' is missing")}) {
        const tk_string name = line.substr(0, line.find('/'));
        BOOST_TEST(has_text(text, "Serial slave '" + name + "' of interface 'ttyS0' left out: '" +
                                      node + line),
                   line);
    }
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

BOOST_FIXTURE_TEST_CASE(interfaces_without_port_take_no_number, CSettingsStore) {
    put(interfaces + "a/Serial Port", "/dev/ttyS0");
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
}

// Who may connect: good values are taken; wrong ones fall back with a warning naming the leaf,
// the value found and the value used.
BOOST_FIXTURE_TEST_CASE(tcp_access, CSettingsStore) {
    const tk_string tcp = "/Software/Data Servers/Modbus/Interface Type/TCP/";
    unit("u", CElement::from_uint(1));
    store.define(port_path, CElement::TYPE_UINT, CElement::from_uint(502));
    put(tcp + "Timeout", 1000);
    {
        const CModbusSettings s = read_settings();
        const CTcpListenerOptions& l = s.tcp().listener();
        BOOST_TEST(l.bind_address.empty());
        BOOST_TEST(l.max_connections == 64u);
        BOOST_TEST(l.idle_timeout_s == 0u);
        BOOST_TEST(l.evict_after_s == 10u);
        BOOST_TEST(l.allow.everyone());
    }
    put(tcp + "Bind Address", "::1");
    put(tcp + "Max Connections", 65535);
    put(tcp + "Idle Timeout", CElement::from_float(86400.0));
    put(tcp + "Evict After", CElement::from_uint(0));
    put(tcp + "Allow", "10.0.0.0/8; ::1");
    {
        CSubsystemLog log(SS_SETTINGS, 0);
        const CModbusSettings s = read_settings();
        const CTcpListenerOptions& l = s.tcp().listener();
        BOOST_TEST(l.bind_address == "::1");
        BOOST_TEST(l.max_connections == 65535u);
        BOOST_TEST(l.idle_timeout_s == 86400u);
        BOOST_TEST(l.evict_after_s == 0u);
        BOOST_TEST(l.allow.str() == "10.0.0.0/8; ::1/128");
        BOOST_TEST(!has_text(log.text(), "WARN"), log.text());
    }
    put(tcp + "Bind Address", CElement::from_uint(1));
    put(tcp + "Max Connections", CElement::from_uint(0));
    put(tcp + "Idle Timeout", CElement::from_int(-1));
    put(tcp + "Evict After", CElement::from_uint(86401));
    put(tcp + "Allow", CElement::from_uint(7));
    CSubsystemLog log(SS_SETTINGS, 0);
    const CModbusSettings s = read_settings();
    const CTcpListenerOptions& l = s.tcp().listener();
    const std::string text = log.text();
    BOOST_TEST(l.bind_address.empty());
    BOOST_TEST(l.max_connections == 64u);
    BOOST_TEST(l.idle_timeout_s == 0u);
    BOOST_TEST(l.evict_after_s == 10u);
    BOOST_TEST(l.allow.nobody());
    BOOST_TEST(count_of(text, "WARN [0] CModbusSettings: ") == 5u, text);
    for (const std::string& line :
         {tcp + "Bind Address/Value' is 1, not an IPv4 or IPv6 address; using every address",
          tcp + "Max Connections/Value' is 0, not a whole number from 1 to 65535; using 64",
          tcp + "Idle Timeout/Value' is -1, not a whole number from 0 to 86400; using 0",
          tcp + "Evict After/Value' is 86401, not a whole number from 0 to 86400; using 10",
          tcp + "Allow/Value' has entries that are not networks (address/prefix): \"7\"; they "
                "are left out, and as no entry is left, every client is refused"})
        BOOST_TEST(has_text(text, line), text);
}

BOOST_AUTO_TEST_SUITE_END()
