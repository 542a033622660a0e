#include "data/sample_store.h"
#include "modbus/config/modbus_settings.h"
#include "support/subsystem_log.h"

#include <boost/test/unit_test.hpp>

using toolkit::CElement;

namespace {

const tk_string units_node = "/Software/Data Servers/Modbus/Interface Type/TCP/Mappings/";
const tk_string interfaces = "/Software/Data Servers/Modbus/Interface Type/Serial/Interface/";

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
    // Read as it stands: the path already names the value leaf.
    store.define("/Software/System Settings/Network/Firewall Settings/Protocol/Modbus/Port/Value",
                 CElement::TYPE_STRING, CElement::from_string("1502"));
    put("/Software/Data Servers/Modbus/Interface Type/TCP/Timeout", CElement::from_int(-5));
    put("/Software/Data Servers/Modbus/Interface Type/Serial/Timeout", CElement::from_float(250.0));
    const CModbusSettings s = read_settings();
    BOOST_TEST(s.zero_fill());
    BOOST_TEST(s.tcp().port() == 502u);     // text is not a number
    BOOST_TEST(s.tcp().timeout() == 1000u); // nor is a negative one a time-out
    BOOST_TEST(s.serial().timeout() == 250u);
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

    CSubsystemLog log(SS_SETTINGS, 1);
    const CModbusSettings s = read_settings();
    const std::string text = log.text();

    BOOST_REQUIRE(s.tcp().units().size() == 2u);
    BOOST_TEST(s.tcp().units()[0].unit_id() == 0u);
    const CModbusTcpUnitSettings& u = s.tcp().units()[1];
    BOOST_TEST(u.unit_id() == 255u);
    BOOST_TEST((u.eds_paths() == std::vector<tk_string>{"a.eds", "b.eds"}));
    for (const char* line :
         {"Invalid Unit ID: 256", "Invalid Unit ID: '-1'", "Invalid Unit ID: 'seven'",
          "Invalid Unit ID: '4294967297'", "Can't fetch device path for e_no_device",
          "Empty device path for f_empty_device", "Can't fetch EDS paths for g_no_eds",
          "No EDS paths for h_empty_eds", "No EDS paths for i_only_separators",
          "Can't fetch UnitID for j_no_id"})
        BOOST_TEST(has_text(text, line), line);
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

    CSubsystemLog log(SS_SETTINGS, 1);
    const CModbusSettings s = read_settings();
    const std::string text = log.text();

    BOOST_REQUIRE(s.serial().interfaces().size() == 1u);
    const auto& slaves = s.serial().interfaces()[0].slaves();
    BOOST_REQUIRE(slaves.size() == 2u);
    BOOST_TEST(slaves[0].slave_address() == 1u);
    BOOST_TEST(slaves[1].slave_address() == 247u);
    BOOST_TEST((slaves[1].eds_paths() == std::vector<tk_string>{"x.eds", "y.eds"}));
    for (const char* line :
         {"Invalid slave address: 0", "Invalid slave address: 248",
          "Can't fetch device path for t_no_device", "Empty device path for u_empty_device",
          "Can't fetch EDS paths for v_no_eds", "No EDS paths for w_empty_eds",
          "Can't fetch slave address for x_no_address"})
        BOOST_TEST(has_text(text, line), line);
}

BOOST_FIXTURE_TEST_CASE(line_settings, CSettingsStore) {
    const struct {
        const char* name;
        const char* flow;
        uint64_t char_size;
        const char* parity;
        const char* stop;
        unsigned want_flow, want_size, want_parity, want_stop;
    } cases[] = {
        {"a", "Software", 5, "Odd", "1.5", 1, 5, 1, 1},
        {"b", "Hardware", 9, "even", "2", 2, 8, 0, 2},
        {"c", "hardware", 4, "Even", "3", 0, 8, 2, 0},
        {"d", "None", 7, "None", "1", 0, 7, 0, 0},
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

    const CModbusSettings s = read_settings();
    BOOST_REQUIRE(s.serial().interfaces().size() == 4u);
    for (size_t i = 0; i < 4; ++i) {
        const auto& iface = s.serial().interfaces()[i];
        const auto& c = cases[i];
        BOOST_TEST(iface.number() == i);
        BOOST_TEST(iface.flow_control() == c.want_flow, c.name);
        BOOST_TEST(iface.char_size() == c.want_size, c.name);
        BOOST_TEST(iface.parity() == c.want_parity, c.name);
        BOOST_TEST(iface.stop_bits() == c.want_stop, c.name);
    }
    BOOST_TEST(s.serial().interfaces()[0].baud_rate() == 9600u);
    BOOST_TEST(s.serial().interfaces()[1].baud_rate() == 115200u);
}

BOOST_FIXTURE_TEST_CASE(interfaces_without_port_take_no_number, CSettingsStore) {
    put(interfaces + "a/Serial Port", "/dev/ttyS0");
    put(interfaces + "b/Baud Rate", 9600);
    slave("b", "s", CElement::from_uint(3));
    put(interfaces + "c/Serial Port", "/dev/ttyS2");
    CSubsystemLog log(SS_SETTINGS, 1);
    const CModbusSettings s = read_settings();
    BOOST_TEST(has_text(log.text(), "Can't fetch serial port for interface b"));
    BOOST_REQUIRE(s.serial().interfaces().size() == 2u);
    BOOST_TEST(s.serial().interfaces()[0].serial_port() == "/dev/ttyS0");
    BOOST_TEST(s.serial().interfaces()[0].number() == 0u);
    BOOST_TEST(s.serial().interfaces()[1].serial_port() == "/dev/ttyS2");
    BOOST_TEST(s.serial().interfaces()[1].number() == 1u);
}

BOOST_AUTO_TEST_SUITE_END()
