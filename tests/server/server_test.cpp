#include "data/sample_store.h"
#include "server_process.h"
#include "support/pty_pair.h"
#include "support/subsystem_log.h"
#include "toolkit/cds_store.h"

#include <modbus/modbus.h>

#include <boost/test/unit_test.hpp>

#include <poll.h>
#include <sys/un.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>
#include <string>

namespace {

using toolkit::CElement;

const char* const port_path =
    "/Software/System Settings/Network/Firewall Settings/Protocol/Modbus/Port/Value";
const char* const ups_path = "/Software/Device Handlers/UPS/Status/Value";
const tk_string serial_iface = "/Software/Data Servers/Modbus/Interface Type/Serial/Interface/COM1";

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

// Reads register 2 of serial slave 17 (the meter, 2305 in the sample store) over the RTU
// line at dev; -1 when there is no answer.
int read_meter_register(const tk_string& dev) {
    modbus_t* ctx = modbus_new_rtu(dev.c_str(), 19200, 'E', 8, 1);
    int result = -1;
    uint16_t regs[3] = {};
    modbus_set_slave(ctx, 17);
    modbus_set_response_timeout(ctx, 1, 0);
    if (modbus_connect(ctx) == 0 && modbus_read_registers(ctx, 0, 3, regs) == 3)
        result = regs[2];
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

CRunResult run_server(const CServerStore& s, const std::vector<tk_string>& args) {
    return run_program(s.store.dir(), "modbus_server", args);
}

// A daemon is not our child: it is gone once its process is gone or a zombie.
bool process_gone(long pid, int ms) {
    for (int i = 0; i < ms / 20 + 1; ++i) {
        const tk_string stat = read_text("/proc/" + std::to_string(pid) + "/stat");
        const size_t paren = stat.rfind(')');
        if (stat.empty() || (paren != tk_string::npos && stat.compare(paren, 4, ") Z ") == 0))
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

// The process id in "... as process N" or "process N waits ...".
long daemon_pid(const tk_string& text) {
    const size_t at = text.find("process ");
    return at == tk_string::npos ? 0 : std::strtol(text.c_str() + at + 8, nullptr, 10);
}

// A unit whose one mapping's leaf exists: a configuration without a flaw.
void clean_store(CServerStore& s) {
    const tk_string eds = s.store.dir().file("clean.eds");
    write_text(eds, "[v]\nName = /V/Value\nAddress = 0\nExternalValueType = DATATYPE_UINT\n"
                    "Size = 2\n");
    CTestStore& st = s.store;
    const tk_string unit = "/Software/Data Servers/Modbus/Interface Type/TCP/Mappings/U/";
    st.define("/Software/Data Servers/Modbus/Interface Type/TCP/Timeout/Value", CElement::TYPE_UINT,
              CElement::from_uint(1000));
    st.define("/Software/Data Servers/Modbus/Zero Fill Default/Value", CElement::TYPE_BOOL,
              CElement::from_bool(false));
    st.define(unit + "Slave ID/Value", CElement::TYPE_UINT, CElement::from_uint(5));
    st.define(unit + "Device Path/Value", CElement::TYPE_STRING, CElement::from_string("/D"));
    st.define(unit + "EDS Paths/Value", CElement::TYPE_STRING, CElement::from_string(eds));
    st.define("/D/V/Value", CElement::TYPE_UINT, CElement::from_uint(7));
}

void break_unit2(CServerStore& s) {
    write_text(s.store.dir().file("broken.eds"), "[x]\nName = /A/Value\nno equals\n");
    s.store.define(
        "/Software/Data Servers/Modbus/Interface Type/TCP/Mappings/Unit2/EDS Paths/Value",
        CElement::TYPE_STRING, CElement::from_string(s.store.dir().file("broken.eds")));
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
    // Said once at the default level, with the leaf it waits for.
    BOOST_TEST(count_of(server.log(), "Waiting for the UPS handler: '" + tk_string(ups_path) +
                                          "' is missing, not 1") == 1u,
               server.log());
    BOOST_TEST(read_voltage(s.port) == -1);
    BOOST_TEST(server.wait(0) == -1);
    s.store.define(ups_path, CElement::TYPE_INT, CElement::from_int(2));
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    BOOST_TEST(read_voltage(s.port) == -1);
    s.store.define(ups_path, CElement::TYPE_INT, CElement::from_int(1));
    BOOST_TEST(wait_for_voltage(s.port) == 2300);
    BOOST_TEST(!has_text(server.log(), "Still waiting"));
    server.signal(SIGTERM);
    BOOST_TEST(server.wait(3000) == 0);
}

// What a user sees at the default level once the server serves: a flawed configuration's
// warnings, then one line of what is served.
BOOST_AUTO_TEST_CASE(start_up_tells_what_is_served_and_what_is_missing) {
    CServerStore s;
    CServerProcess server(s.store.dir(), {"-Ns"});
    BOOST_TEST(wait_for_voltage(s.port) == 2300);
    const tk_string log = server.log();
    BOOST_TEST(has_text(log, "'/Devices/UPS/Missing/Value' is not in the store (mapped by TCP "
                             "unit 1 in '" +
                                 sample_data("eds/ups.eds") + "')"),
               log);
    BOOST_TEST(has_text(log, "INFO [0] "), log);
    // /dev/null is no serial line: the summary leaves it out.
    BOOST_TEST(
        has_text(log, "Serving Modbus TCP on port " + std::to_string(s.port) + " (units 1, 2)\n"),
        log);
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

// The event registers follow the event log while the server runs.
BOOST_AUTO_TEST_CASE(event_registers_follow_the_log) {
    CServerStore s;
    CServerProcess server(s.store.dir(), {"-Ns"}); // the store holds the event log
    BOOST_TEST(wait_for_voltage(s.port) == 2300);
    const auto newest_event = [&](uint16_t* regs) {
        modbus_t* ctx = modbus_new_tcp("127.0.0.1", s.port);
        modbus_set_slave(ctx, 1);
        int rc = -1;
        if (modbus_connect(ctx) == 0)
            rc = modbus_read_registers(ctx, 260, 5, regs); // id, cause, waveform
        modbus_close(ctx);
        modbus_free(ctx);
        return rc;
    };
    uint16_t regs[5] = {};
    BOOST_TEST(newest_event(regs) == 5);
    BOOST_TEST(regs[1] != 4660u); // not that event yet
    const tk_string add = tk_string(MB_BINARY_DIR "/cdsctl") +
                          " event add --id 4660 --kind 4 --source /Devices/UPS/Output/Voltage" +
                          " --url /wave/42.dat >/dev/null";
    BOOST_REQUIRE(std::system(add.c_str()) == 0);
    bool seen = false;
    for (int i = 0; i < 40 && !seen; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        seen = newest_event(regs) == 5 && regs[1] == 4660;
    }
    BOOST_TEST(seen);
    BOOST_TEST(regs[4] == 42u);
    server.signal(SIGTERM);
    BOOST_TEST(server.wait(3000) == 0);
}

// systemd's side of a Type=notify service: the notify socket, and WatchdogSec=0.4.
BOOST_AUTO_TEST_CASE(tells_systemd_it_serves_and_feeds_its_watchdog) {
    CServerStore s;
    const tk_string path = s.store.dir().file("notify");
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    BOOST_REQUIRE(fd >= 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    BOOST_REQUIRE(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0);
    std::vector<std::string> said;
    {
        CScopedEnv socket_env("NOTIFY_SOCKET", path);
        CScopedEnv watchdog_env("WATCHDOG_USEC", "400000");
        CServerProcess server(s.store.dir(), {"-Ns"});
        // Everything said within a second and a half.
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
        while (std::chrono::steady_clock::now() < end) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 100) != 1)
                continue;
            char text[256];
            const ssize_t n = ::recv(fd, text, sizeof text, 0);
            if (n > 0)
                said.emplace_back(text, static_cast<size_t>(n));
            // Ready means listening.
            if (said.size() == 1)
                BOOST_TEST(read_voltage(s.port) == 2300);
        }
        server.signal(SIGTERM);
        BOOST_TEST(server.wait(3000) == 0);
        // The last word, after any watchdog feed that was still on its way.
        std::string last;
        char text[256];
        for (ssize_t n; (n = ::recv(fd, text, sizeof text, MSG_DONTWAIT)) > 0;)
            last.assign(text, static_cast<size_t>(n));
        BOOST_TEST(last == "STOPPING=1");
    }
    ::close(fd);
    BOOST_REQUIRE(!said.empty());
    BOOST_TEST(said.front() == "READY=1");
    // At half the watchdog time-out: about 7 in 1.5 s, on a busy machine fewer.
    const size_t pings = static_cast<size_t>(std::count(said.begin(), said.end(), "WATCHDOG=1"));
    BOOST_TEST(pings >= 3u);
    BOOST_TEST(pings <= 9u);
    BOOST_TEST(pings + 1 == said.size());
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
        BOOST_TEST(!has_text(server.log(), "Serving"), server.log());
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
    BOOST_TEST(read_meter_register(line.end_b()) == 2305);
    // The line going away ends the serial side only.
    line.stop();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    BOOST_TEST(read_voltage(s.port) == 2300);
    server.signal(SIGTERM);
    BOOST_TEST(server.wait(3000) == 0);
}

// A serial time-out of 0 used to leave the line without its slave addresses, in silence.
BOOST_AUTO_TEST_CASE(serial_time_out_zero_still_serves) {
    if (!CPtyPair::socat_available()) {
        BOOST_TEST_MESSAGE("socat is not installed; not tested");
        return;
    }
    CPtyPair line;
    BOOST_REQUIRE(line.ok());
    CServerStore s(true, line.end_a());
    s.store.define("/Software/Data Servers/Modbus/Interface Type/Serial/Timeout/Value",
                   CElement::TYPE_UINT, CElement::from_uint(0));
    CServerProcess server(s.store.dir(), {"-Ns"});
    BOOST_TEST(wait_for_voltage(s.port) == 2300);
    BOOST_TEST(has_text(server.log(), "Serial/Timeout/Value' is 0, not a whole number from 1 up; "
                                      "using 1000"),
               server.log());
    BOOST_TEST(has_text(server.log(), "Serving Modbus TCP on port " + std::to_string(s.port) +
                                          " (units 1, 2), RTU on '" + line.end_a() +
                                          "' at 19200 baud (slaves 1, 17)"),
               server.log());
    BOOST_TEST(read_meter_register(line.end_b()) == 2305);
    server.signal(SIGTERM);
    BOOST_TEST(server.wait(3000) == 0);
}

BOOST_AUTO_TEST_CASE(check_exit_statuses) {
    // Clean: nothing bound, no waiting for the UPS handler.
    {
        CServerStore s(false);
        size_t removed = 0;
        BOOST_REQUIRE(s.store.store().remove("/Software/Data Servers", true, removed) == 0);
        clean_store(s);
        const CRunResult r = run_server(s, {"--check"});
        BOOST_TEST(r.status == 0, r.err);
        BOOST_TEST(r.out == "TCP port " + std::to_string(s.port) +
                                ", time-out 1000 ms\n  unit 5: device '/D', 1 mappings\n"
                                "0 errors, 0 warnings\n");
        BOOST_TEST(r.err == "");
    }
    // Warnings only: the sample maps leaves the store lacks.
    {
        CServerStore s(false);
        const CRunResult r = run_server(s, {"-c"});
        BOOST_TEST(r.status == 2, r.err);
        for (const char* line : {"  unit 1: device '/Devices/UPS', 38 mappings\n",
                                 "Serial interface 0 on '/dev/null', 19200 baud, time-out 500 ms\n",
                                 "  slave 17: device '/Devices/Meter', 3 mappings\n", "0 errors, "})
            BOOST_TEST(has_text(r.out, line), r.out);
        BOOST_TEST(has_text(r.err, "WARN [0] "), r.err);
        BOOST_TEST(has_text(r.err, "'/Devices/UPS/Ghost Coil/Value' is not in the store"), r.err);
        BOOST_TEST(has_text(r.err, "ups.eds:103: [(15) Shifted] overlaps"), r.err);
    }
    // Errors: a broken file, and every other one still read.
    {
        CServerStore s;
        break_unit2(s);
        const CRunResult r = run_server(s, {"--check"});
        BOOST_TEST(r.status == 1, r.err);
        BOOST_TEST(has_text(r.err, "Error parsing EDS file: '" + s.store.dir().file("broken.eds")),
                   r.err);
        BOOST_TEST(has_text(r.out, " errors, "), r.out);
        BOOST_TEST(!has_text(r.out, "0 errors"), r.out);
    }
}

// Spellings that mapping files have always been allowed: they load, each with its old
// meaning and a warning naming its line; the strict setting refuses the file.
BOOST_AUTO_TEST_CASE(old_spellings_load_with_their_meaning) {
    const char* const eds_text =
        "[Coil]\nName = /C/Value\nAddress = 0\nDiscrete = true\nNegateValue = True\n" // 1-5
        "[TRUE]\nName = /R0/Value\nAddress = 0\nDiscrete = TRUE\n"                      // 6-9
        "ExternalValueType = DATATYPE_UINT\nSize = 2\n"                                   // 10-11
        "[One]\nName = /R1/Value\nAddress = 1\nDiscrete = 1\n"                          // 12-15
        "ExternalValueType = DATATYPE_UINT\nSize = 2\n"                                   // 16-17
        "[Big]\nName = /R2/Value\nAddress = 2\nExternalValueType = DATATYPE_UINT\n"     // 18-21
        "Size = 2\nEndianness = big\n"                                                   // 22-23
        "[Seven]\nName = /R3/Value\nAddress = 3\nExternalValueType = DATATYPE_UINT\n"   // 24-27
        "Size = 4\nWordOrder = 7\n"                                                      // 28-29
        "[Stamp]\nName = /R5/Value\nAddress = 5\nExternalValueType = DATATYPE_TIME\n"   // 30-33
        "DateSpec = YY\nTimestamp = yes\n"                                               // 34-35
        "[Minus]\nName = /R6/Value\nAddress = 6\nExternalValueType = DATATYPE_INT\n"    // 36-39
        "Size = 2\nMultiplier = -10\n"                                                   // 40-41
        "[Wraps]\nName = /R7/Value\nAddress = 7\nExternalValueType = DATATYPE_UINT\n"   // 42-45
        "Size = 2\nMultiplier = -1\n";                                                   // 46-47
    CServerStore s;
    size_t removed = 0;
    BOOST_REQUIRE(s.store.store().remove("/Software/Data Servers", true, removed) == 0);
    clean_store(s);
    const tk_string eds = s.store.dir().file("spell.eds");
    write_text(eds, eds_text);
    CTestStore& st = s.store;
    st.define("/Software/Data Servers/Modbus/Interface Type/TCP/Mappings/U/EDS Paths/Value",
              CElement::TYPE_STRING, CElement::from_string(eds));
    const timeval stamp{981158400, 0}; // 2001-02-03 00:00:00 UTC
    st.define({{"/D/C/Value", CElement::TYPE_BOOL, CElement::from_bool(true), 0},
               {"/D/R0/Value", CElement::TYPE_UINT, CElement::from_uint(10), 0},
               {"/D/R1/Value", CElement::TYPE_UINT, CElement::from_uint(11), 0},
               {"/D/R2/Value", CElement::TYPE_UINT, CElement::from_uint(0x1234), 0},
               {"/D/R3/Value", CElement::TYPE_UINT, CElement::from_uint(0x00010002), 0},
               {"/D/R5/Value", CElement::TYPE_UINT, CElement::from_uint(7, stamp), 0},
               {"/D/R6/Value", CElement::TYPE_INT, CElement::from_int(12), 0},
               {"/D/R7/Value", CElement::TYPE_UINT, CElement::from_uint(5), 0}});

    const CRunResult check = run_server(s, {"--check"});
    BOOST_TEST(check.status == 2, check.err);
    const std::vector<tk_string> warnings = {
        eds + ":5: [Coil] NegateValue = True: only \"true\" negates; not negated",
        eds + ":9: [TRUE] Discrete = TRUE: only \"true\" makes a coil or discrete input; a "
              "register mapping",
        eds + ":15: [One] Discrete = 1: only \"true\" makes a coil or discrete input; a "
              "register mapping",
        eds + ":23: [Big] Endianness = big: neither 0 nor 1; taken as 1: the bytes of each "
              "register swapped",
        eds + ":29: [Seven] WordOrder = 7: neither 0 nor 1; taken as 1: registers in reverse "
              "order",
        eds + ":35: [Stamp] Timestamp = yes: neither 0 nor 1; taken as 1: the value's time stamp "
              "is mapped",
        eds + ":47: [Wraps] Multiplier = -1: negative on an unsigned value, which wraps around; "
              "taken as written",
    };
    for (const tk_string& w : warnings)
        BOOST_TEST(has_text(check.err, w + "\n"), w << "\n" << check.err);
    BOOST_TEST(std::count(check.err.begin(), check.err.end(), '\n') == long(warnings.size()),
               check.err);

    {
        CServerProcess server(s.store.dir(), {"-Ns"});
        modbus_t* ctx = modbus_new_tcp("127.0.0.1", s.port);
        modbus_set_slave(ctx, 5);
        modbus_set_response_timeout(ctx, 1, 0);
        bool up = false;
        for (int i = 0; i < 100 && !up; ++i) {
            up = modbus_connect(ctx) == 0;
            if (!up)
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        BOOST_REQUIRE_MESSAGE(up, server.log());
        uint8_t coil = 0;
        BOOST_TEST(modbus_read_bits(ctx, 0, 1, &coil) == 1);
        BOOST_TEST(coil == 1); // not negated
        uint16_t regs[8] = {};
        BOOST_TEST(modbus_read_registers(ctx, 0, 8, regs) == 8, modbus_strerror(errno));
        const std::vector<uint16_t> got(regs, regs + 8);
        const std::vector<uint16_t> expected = {10, 11, 0x3412, 0x0002, 0x0001, 2001, 0xff88,
                                                0xfffb};
        BOOST_TEST(got == expected, boost::test_tools::per_element());
        modbus_close(ctx);
        modbus_free(ctx);
    }

    // Strict: the first likely mistake stops the start.
    st.define("/Software/Data Servers/Modbus/Strict Mapping Files/Value", CElement::TYPE_BOOL,
              CElement::from_bool(true));
    CServerProcess strict(s.store.dir(), {"-Ns"});
    BOOST_TEST(strict.wait(5000) == 1, strict.log());
    BOOST_TEST(has_text(strict.log(), "Error parsing EDS file: '" + eds + "': " + eds +
                                          ":5: [Coil] NegateValue = True: only \"true\" "
                                          "negates (mapping files are strict)"),
               strict.log());
    BOOST_TEST(!has_text(strict.log(), ":9: [TRUE]"), strict.log());
}

// Every setting that falls back to its default, or is taken though likely a mistake, says so
// at the default level.
BOOST_AUTO_TEST_CASE(wrong_settings_are_warned_about) {
    const tk_string modbus = "/Software/Data Servers/Modbus/";
    const struct {
        tk_string leaf;
        CElement value;
        const char* said;
    } cases[] = {
        {port_path, CElement::from_string("abc"),
         "is \"abc\", not a whole number from 1 to 65535; using 502"},
        {port_path, CElement::from_int(-1), "is -1, not"},
        {port_path, CElement::from_bool(true), "is true, not"},
        {port_path, CElement::from_float(502.5), "is 502.5, which has a fraction; taken as 502"},
        {serial_iface + "/Parity/Value", CElement::from_string("X"),
         "is \"X\", not one of None, Odd, Even; using None"},
        {serial_iface + "/Parity/Value", CElement::from_string("odd"), "is \"odd\", not"},
        {serial_iface + "/Stop Bits/Value", CElement::from_string("3"), "is \"3\", not"},
        {serial_iface + "/Char Size/Value", CElement::from_uint(9),
         "is 9, not a whole number from 5 to 8; using 8"},
        {serial_iface + "/Flow Control/Value", CElement::from_string("Foo"),
         "is \"Foo\", not one of None, Software, Hardware; using None"},
        {serial_iface + "/Baud Rate/Value", CElement::from_int(-1), "is -1, not"},
        {modbus + "Interface Type/Serial/Timeout/Value", CElement::from_int(-1), "is -1, not"},
        {modbus + "Interface Type/Serial/Timeout/Value", CElement::from_uint(0), "is 0, not"},
        {modbus + "Zero Fill Default/Value", CElement::from_string("abc"),
         "is \"abc\", not true or false; using false"},
    };
    for (const auto& c : cases) {
        CServerStore s(false);
        s.store.define(c.leaf, c.value.type(), c.value);
        const CRunResult r = run_server(s, {"-c"});
        BOOST_TEST(r.status == 2, c.leaf << ": " << r.err);
        BOOST_TEST(has_text(r.err, "WARN [0] CModbusSettings: '" + c.leaf + "' " + c.said), r.err);
        BOOST_TEST(has_text(r.out, "0 errors, "), r.out);
    }
    // A store without units.
    CServerStore s(false);
    size_t removed = 0;
    BOOST_REQUIRE(
        s.store.store().remove("/Software/Data Servers/Modbus/Interface Type", true, removed) == 0);
    const CRunResult r = run_server(s, {"-c"});
    BOOST_TEST(r.status == 2, r.err);
    BOOST_TEST(has_text(r.err, "No units configured"), r.err);
}

BOOST_AUTO_TEST_CASE(daemon_reports_its_start_up) {
    // A broken file: the starting process fails with the daemon's own error.
    {
        CServerStore s;
        break_unit2(s);
        const CRunResult r = run_server(s, {"-Ns", "-d"});
        BOOST_TEST(r.status == 1, r.err);
        BOOST_TEST(has_text(r.err, "Error parsing EDS file: '" + s.store.dir().file("broken.eds")),
                   r.err);
    }
    // Ready: the port answers as soon as the starting process is gone.
    {
        CServerStore s;
        const CRunResult r = run_server(s, {"-Ns", "-d"});
        BOOST_TEST(r.status == 0, r.err);
        BOOST_TEST(has_text(r.err, "Serving Modbus TCP on port " + std::to_string(s.port)), r.err);
        BOOST_TEST(has_text(r.err, "modbus_server: serving in the background as process "), r.err);
        const long pid = daemon_pid(r.err.substr(r.err.find("serving in the background")));
        BOOST_REQUIRE(pid > 0);
        BOOST_TEST(read_voltage(s.port) == 2300);
        ::kill(static_cast<pid_t>(pid), SIGTERM);
        BOOST_TEST(process_gone(pid, 3000));
    }
    // Waiting for the UPS handler: the starting process does not wait with it.
    {
        CServerStore s(false);
        const CRunResult r = run_server(s, {"-Ns", "-d"});
        BOOST_TEST(r.status == 0, r.err);
        BOOST_TEST(has_text(r.err, "Waiting for the UPS handler"), r.err);
        const size_t at = r.err.find("modbus_server: process ");
        BOOST_REQUIRE(at != tk_string::npos);
        BOOST_TEST(has_text(r.err, "waits in the background for the UPS handler"), r.err);
        const long pid = daemon_pid(r.err.substr(at));
        BOOST_REQUIRE(pid > 0);
        s.store.define(ups_path, CElement::TYPE_INT, CElement::from_int(1));
        BOOST_TEST(wait_for_voltage(s.port) == 2300);
        ::kill(static_cast<pid_t>(pid), SIGTERM);
        BOOST_TEST(process_gone(pid, 3000));
    }
}

BOOST_AUTO_TEST_CASE(help_and_version_exit_0) {
    CTempDir dir;
    for (const char* program : {"modbus_server", "modbus_profiler", "modbus_test"})
        for (const char* option : {"-h", "-v", "-hv"})
            BOOST_TEST(run_program(dir, program, {option}).status == 0, program << " " << option);
}

BOOST_AUTO_TEST_CASE(missing_serial_device_leaves_tcp_serving) {
    CServerStore s(true, "/dev/no-such-serial-device");
    CServerProcess server(s.store.dir(), {"-Ns"});
    BOOST_TEST(wait_for_voltage(s.port) == 2300);
    server.signal(SIGTERM);
    BOOST_TEST(server.wait(3000) == 0);
}

BOOST_AUTO_TEST_SUITE_END()
