#include "data/sample_store.h"
#include "server_process.h"
#include "support/pty_pair.h"
#include "toolkit/cds_store.h"

#include <modbus/modbus.h>

#include <boost/test/unit_test.hpp>

#include <functional>
#include <set>

namespace {

using toolkit::CElement;

const char* const port_path =
    "/Software/System Settings/Network/Firewall Settings/Protocol/Modbus/Port/Value";
const char* const ups_path = "/Software/Device Handlers/UPS/Status/Value";

// The sample store on a free port, its UPS handler ready unless told otherwise.
struct CServerStore {
    explicit CServerStore(bool ups_ready = true, const tk_string& serial = "/dev/null") {
        load_sample_store(store, serial);
        port = free_port();
        store.define(port_path, CElement::TYPE_UINT, CElement::from_uint(port));
        if (ups_ready)
            store.define(ups_path, CElement::TYPE_INT, CElement::from_int(1));
    }
    CTestStore store;
    uint16_t port = 0;
};

// Reads register 8 of unit 1 (2300 in the sample store); -1 when there is no answer.
int read_voltage(uint16_t port) {
    modbus_t* ctx = modbus_new_tcp("127.0.0.1", port);
    int result = -1;
    uint16_t reg = 0;
    modbus_set_slave(ctx, 1);
    modbus_set_response_timeout(ctx, 1, 0);
    if (modbus_connect(ctx) == 0 && modbus_read_registers(ctx, 8, 1, &reg) == 1)
        result = reg;
    modbus_close(ctx);
    modbus_free(ctx);
    return result;
}

// Polls until the server answers (it may still be starting).
int wait_for_voltage(uint16_t port, int ms = 5000) {
    for (int i = 0; i < ms / 50; ++i) {
        const int v = read_voltage(port);
        if (v >= 0)
            return v;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return -1;
}

} // namespace

BOOST_AUTO_TEST_SUITE(server)

BOOST_AUTO_TEST_CASE(serves_and_stops_on_each_signal) {
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
        CServerStore s;
        CServerProcess server(s.store.dir(), {"-Ns", "-D", "3"});
        BOOST_TEST(wait_for_voltage(s.port) == 2300, "signal " << sig);
        server.signal(SIGPIPE);
        BOOST_TEST(read_voltage(s.port) == 2300);
        const auto start = std::chrono::steady_clock::now();
        server.signal(sig);
        BOOST_TEST(server.wait(3000) == 0, "signal " << sig << ": " << server.log());
        BOOST_TEST((std::chrono::steady_clock::now() - start < std::chrono::seconds(2)));
        BOOST_TEST(has_text(server.log(), "Server core shutdown complete."));
    }
}

BOOST_AUTO_TEST_CASE(waits_for_the_ups_handler) {
    CServerStore s(false);
    CServerProcess server(s.store.dir(), {"-Ns"});
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    BOOST_TEST(read_voltage(s.port) == -1);
    BOOST_TEST(server.wait(0) == -1);
    s.store.define(ups_path, CElement::TYPE_INT, CElement::from_int(2));
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    BOOST_TEST(read_voltage(s.port) == -1);
    s.store.define(ups_path, CElement::TYPE_INT, CElement::from_int(1));
    BOOST_TEST(wait_for_voltage(s.port) == 2300);
    server.signal(SIGTERM);
    BOOST_TEST(server.wait(3000) == 0);
}

BOOST_AUTO_TEST_CASE(watchdog_is_pinged) {
    CServerStore s;
    CServerProcess server(s.store.dir(), {"-Ns", "-w", "400"});
    BOOST_TEST(wait_for_voltage(s.port) == 2300);
    toolkit::CCdsStore reader;
    BOOST_REQUIRE(reader.open(s.store.path()) == 0);
    std::set<std::pair<int64_t, int64_t>> pings;
    for (int i = 0; i < 20; ++i) {
        std::vector<toolkit::CWatchdogInfo> entries;
        BOOST_REQUIRE(reader.watchdogs(entries) == 0);
        BOOST_REQUIRE(entries.size() == 1u);
        BOOST_TEST(entries[0].ident == "modbus_server");
        BOOST_TEST(entries[0].timeout_ms == 400u);
        pings.insert({entries[0].last_ping.tv_sec, entries[0].last_ping.tv_usec});
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    // About one second at a ping every 200 ms.
    BOOST_TEST(pings.size() >= 3u);
    BOOST_TEST(pings.size() <= 8u);
    server.signal(SIGTERM);
    BOOST_TEST(server.wait(3000) == 0);
}

BOOST_AUTO_TEST_CASE(start_up_failures) {
    struct {
        std::vector<tk_string> args;
        std::function<void(CServerStore&)> spoil;
        const char* message;
    } cases[] = {
        {{"--bogus"}, {}, "Usage: "},
        {{"-w", "x"}, {}, "Error: invalid (non-numeric) argument 'x'"},
        {{"-rt", "FIFO", "10"}, {}, "Error: invalid real-time priority"},
        {{"-Ns"},
         [](CServerStore& s) {
             write_text(s.store.dir().file("broken.eds"), "[x]\nName = /A/Value\nno equals\n");
             s.store.define(
                 "/Software/Data Servers/Modbus/Interface Type/TCP/Mappings/Unit2/EDS Paths/Value",
                 CElement::TYPE_STRING, CElement::from_string(s.store.dir().file("broken.eds")));
         },
         "Error parsing EDS file"},
        {{"-Ns"},
         [](CServerStore& s) { ::setenv("CDS_STORE", s.store.dir().file("none.db").c_str(), 1); },
         "Couldn't connect to CDS"},
    };
    for (auto& c : cases) {
        CServerStore s;
        if (c.spoil)
            c.spoil(s);
        CServerProcess server(s.store.dir(), c.args);
        BOOST_TEST(server.wait(5000) == 1, server.log());
        BOOST_TEST(has_text(server.log(), c.message), server.log());
    }
    // The port is taken.
    CServerStore s;
    CServerProcess first(s.store.dir(), {"-Ns"});
    BOOST_TEST(wait_for_voltage(s.port) == 2300);
    CServerProcess second(s.store.dir(), {"-Ns"});
    BOOST_TEST(second.wait(5000) == 1);
    BOOST_TEST(has_text(second.log(), "While binding to TCP port " + std::to_string(s.port)),
               second.log());
    BOOST_TEST(read_voltage(s.port) == 2300);
}

BOOST_AUTO_TEST_CASE(serial_and_tcp_together) {
    if (!CPtyPair::socat_available()) {
        BOOST_TEST_MESSAGE("socat is not installed; serial side not tested");
        return;
    }
    CPtyPair line;
    BOOST_REQUIRE(line.ok());
    CServerStore s(true, line.end_a());
    CServerProcess server(s.store.dir(), {"-Ns"});
    BOOST_TEST(wait_for_voltage(s.port) == 2300);
    modbus_t* ctx = modbus_new_rtu(line.end_b().c_str(), 19200, 'E', 8, 1);
    modbus_set_slave(ctx, 17);
    modbus_set_response_timeout(ctx, 1, 0);
    BOOST_REQUIRE(modbus_connect(ctx) == 0);
    uint16_t regs[3] = {};
    BOOST_TEST(modbus_read_registers(ctx, 0, 3, regs) == 3);
    BOOST_TEST(regs[2] == 2305);
    modbus_close(ctx);
    modbus_free(ctx);
    // The line going away ends the serial side only.
    line.stop();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    BOOST_TEST(read_voltage(s.port) == 2300);
    server.signal(SIGTERM);
    BOOST_TEST(server.wait(3000) == 0);
}

BOOST_AUTO_TEST_CASE(missing_serial_device_leaves_tcp_serving) {
    CServerStore s(true, "/dev/no-such-serial-device");
    CServerProcess server(s.store.dir(), {"-Ns"});
    BOOST_TEST(wait_for_voltage(s.port) == 2300);
    server.signal(SIGTERM);
    BOOST_TEST(server.wait(3000) == 0);
}

BOOST_AUTO_TEST_SUITE_END()
