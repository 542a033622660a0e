#include "server_process.h"
#include "support/pty_pair.h"
#include "support/subsystem_log.h"

#include <boost/test/unit_test.hpp>

#include <poll.h>
#include <sys/un.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <set>

namespace {

using toolkit::CElement;

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

CRunResult run_server(const CServerStore& s, const std::vector<tk_string>& args) {
    return run_program(s.store.dir(), "modbus_server", args);
}

// A daemon is not our child: it is gone once its process is gone or a zombie.
bool process_gone(long pid) {
    return eventually([pid] {
        const tk_string stat = read_text("/proc/" + std::to_string(pid) + "/stat");
        const size_t paren = stat.rfind(')');
        return stat.empty() || (paren != tk_string::npos && stat.compare(paren, 4, ") Z ") == 0);
    });
}

// The process id in "... as process N" or "process N waits ...", after the text from.
long daemon_pid(const tk_string& text, const tk_string& from) {
    const size_t at = text.find("process ", text.find(from));
    return at == tk_string::npos ? 0 : std::strtol(text.c_str() + at + 8, nullptr, 10);
}

// Only unit 5, whose one mapping's leaf exists: a configuration without a flaw.
void clean_store(CServerStore& s) {
    size_t removed = 0;
    BOOST_REQUIRE(s.store.store().remove("/Software/Data Servers", true, removed) == 0);
    const tk_string eds = s.store.dir().file("clean.eds");
    write_text(eds, "[v]\nName = /V/Value\nAddress = 0\nExternalValueType = DATATYPE_UINT\n"
                    "Size = 2\n");
    const tk_string unit = tcp_node + "Mappings/U/";
    s.tcp("Timeout", CElement::from_uint(1000));
    s.store.define(
        {{"/Software/Data Servers/Modbus/Zero Fill Default/Value", CElement::TYPE_BOOL,
          CElement::from_bool(false), 0},
         {unit + "Slave ID/Value", CElement::TYPE_UINT, CElement::from_uint(5), 0},
         {unit + "Device Path/Value", CElement::TYPE_STRING, CElement::from_string("/D"), 0},
         {unit + "EDS Paths/Value", CElement::TYPE_STRING, CElement::from_string(eds), 0},
         {"/D/V/Value", CElement::TYPE_UINT, CElement::from_uint(7), 0}});
}

void break_unit2(CServerStore& s) {
    write_text(s.store.dir().file("broken.eds"), "[x]\nName = /A/Value\nno equals\n");
    s.tcp("Mappings/Unit2/EDS Paths", CElement::from_string(s.store.dir().file("broken.eds")));
}

} // namespace

BOOST_AUTO_TEST_SUITE(server)

// What a user sees once the server serves: a flawed configuration's warnings, then one line
// of what is served. A serial device that is missing leaves TCP serving. SIGPIPE is ignored;
// a terminating signal (each is tested in the io suite) ends the server cleanly.
BOOST_AUTO_TEST_CASE(serves_and_stops_on_a_signal) {
    CServerStore s(true, "/dev/no-such-serial-device");
    CServerProcess server(s.store.dir(), {"-Ns", "-D", "3"});
    BOOST_TEST(serves(s.port));
    const tk_string log = server.log();
    BOOST_TEST(has_text(log, "'/Devices/UPS/Missing/Value' is not in the store (mapped by TCP "
                             "unit 1 in '" +
                                 sample_data("eds/ups.eds") + "')"),
               log);
    BOOST_TEST(has_text(log, "INFO [0] "), log);
    // A serial line that did not open is left out.
    BOOST_TEST(
        has_text(log, "Serving Modbus TCP on port " + std::to_string(s.port) + " (units 1, 2)\n"),
        log);
    server.signal(SIGPIPE);
    BOOST_TEST(read_voltage(s.port) == 2300);
    server.signal(SIGTERM);
    BOOST_TEST(server.wait(2000) == 0, server.log());
    BOOST_TEST(has_text(server.log(), "Server core shutdown complete."));
}

BOOST_AUTO_TEST_CASE(waits_for_the_ups_handler) {
    CServerStore s(false);
    CServerProcess server(s.store.dir(), {"-Ns"});
    const tk_string waiting = "Waiting for the UPS handler: '" + ups_leaf + "' is missing, not 1";
    BOOST_TEST(server.says(waiting), server.log());
    // 2 is not ready either; the store is polled twice a second, and the wait is told once.
    s.store.define(ups_leaf, CElement::TYPE_INT, CElement::from_int(2));
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    BOOST_TEST(read_voltage(s.port) == -1);
    BOOST_TEST(server.wait(0) == -1);
    BOOST_TEST(count_of(server.log(), waiting) == 1u, server.log());
    s.store.define(ups_leaf, CElement::TYPE_INT, CElement::from_int(1));
    BOOST_TEST(serves(s.port));
    BOOST_TEST(!has_text(server.log(), "Still waiting"));
    BOOST_TEST(server.stop());
}

// The event registers follow the event log while the server runs.
BOOST_AUTO_TEST_CASE(event_registers_follow_the_log) {
    CServerStore s;
    CServerProcess server(s.store.dir(), {"-Ns"}); // the store holds the event log
    const auto ctx = modbus_client(s.port);
    uint16_t regs[5] = {}; // the newest event's id, cause and waveform
    BOOST_TEST(modbus_read_registers(ctx.get(), 260, 5, regs) == 5);
    BOOST_TEST(regs[1] != 4660u);
    const tk_string add = tk_string(MB_BINARY_DIR "/cdsctl") +
                          " event add --id 4660 --kind 4 --source /Devices/UPS/Output/Voltage" +
                          " --url /wave/42.dat >/dev/null";
    BOOST_REQUIRE(std::system(add.c_str()) == 0);
    BOOST_TEST(eventually(
        [&] { return modbus_read_registers(ctx.get(), 260, 5, regs) == 5 && regs[1] == 4660; }));
    BOOST_TEST(regs[4] == 42u);
}

BOOST_AUTO_TEST_CASE(watchdog_is_pinged) {
    CServerStore s;
    CServerProcess server(s.store.dir(), {"-Ns", "-w", "400"});
    BOOST_TEST(serves(s.port));
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
    BOOST_TEST(server.stop());
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
    char text[256];
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
            const ssize_t n = ::recv(fd, text, sizeof text, 0);
            if (n > 0)
                said.emplace_back(text, static_cast<size_t>(n));
            // Ready means listening.
            if (said.size() == 1)
                BOOST_TEST(read_voltage(s.port) == 2300);
        }
        BOOST_TEST(server.stop());
    }
    // The last word, after any watchdog feed that was still on its way.
    std::string last;
    for (ssize_t n; (n = ::recv(fd, text, sizeof text, MSG_DONTWAIT)) > 0;)
        last.assign(text, static_cast<size_t>(n));
    BOOST_TEST(last == "STOPPING=1");
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
    const struct {
        std::vector<tk_string> args;
        std::function<void(CServerStore&)> spoil;
        const char* message;
    } cases[] = {
        {{"--bogus"}, {}, "Usage: "},
        {{"-w", "x"}, {}, "Error: invalid (non-numeric) argument 'x'"},
        {{"-rt", "FIFO", "10"}, {}, "Error: invalid real-time priority"},
        {{"-Ns"}, break_unit2, "Error parsing EDS file"},
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
    BOOST_TEST(serves(s.port));
    CServerProcess second(s.store.dir(), {"-Ns"});
    BOOST_TEST(second.wait(5000) == 1);
    BOOST_TEST(has_text(second.log(), "While binding to TCP port " + std::to_string(s.port)),
               second.log());
    BOOST_TEST(read_voltage(s.port) == 2300);
}

// A serial time-out of 0 used to leave the line without its slave addresses, in silence.
// The line going away ends the serial side only.
BOOST_AUTO_TEST_CASE(serial_and_tcp_together, *boost::unit_test::precondition(CPtyPair::needed)) {
    CPtyPair line;
    BOOST_REQUIRE(line.ok());
    CServerStore s(true, line.end_a());
    s.store.define("/Software/Data Servers/Modbus/Interface Type/Serial/Timeout/Value",
                   CElement::TYPE_UINT, CElement::from_uint(0));
    CServerProcess server(s.store.dir(), {"-Ns", "-D", "1"}); // for the line's end
    BOOST_TEST(serves(s.port));
    BOOST_TEST(has_text(server.log(), "Serial/Timeout/Value' is 0, not a whole number from 1 up; "
                                      "using 1000"),
               server.log());
    BOOST_TEST(has_text(server.log(), "Serving Modbus TCP on port " + std::to_string(s.port) +
                                          " (units 1, 2), RTU on '" + line.end_a() +
                                          "' at 19200 baud (slaves 1, 17)"),
               server.log());
    // The line opened a moment ago: a frame needs silence before it.
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    BOOST_TEST(read_meter_register(line.end_b()) == 2305);
    line.stop();
    BOOST_TEST(server.says("Reading '" + line.end_a() + "'"), server.log());
    BOOST_TEST(read_voltage(s.port) == 2300);
    BOOST_TEST(server.stop());
}

BOOST_AUTO_TEST_CASE(check_exit_statuses) {
    // Clean: nothing bound, no waiting for the UPS handler.
    {
        CServerStore s(false);
        clean_store(s);
        const CRunResult r = run_server(s, {"--check"});
        BOOST_TEST(r.status == 0, r.err);
        BOOST_TEST(r.out == "TCP port " + std::to_string(s.port) +
                                ", time-out 1000 ms\n  unit 5: device '/D', 1 mappings\n"
                                "0 errors, 0 warnings\n");
        BOOST_TEST(r.err == "");
    }
    // Warnings only: the sample maps leaves the store lacks, and a setting is wrong.
    {
        CServerStore s(false);
        const tk_string parity =
            "/Software/Data Servers/Modbus/Interface Type/Serial/Interface/COM1/Parity/Value";
        s.store.define(parity, CElement::TYPE_STRING, CElement::from_string("X"));
        const CRunResult r = run_server(s, {"-c"});
        BOOST_TEST(r.status == 2, r.err);
        for (const char* line : {"  unit 1: device '/Devices/UPS', 38 mappings\n",
                                 "Serial interface 0 on '/dev/null', 19200 baud, time-out 500 ms\n",
                                 "  slave 17: device '/Devices/Meter', 3 mappings\n", "0 errors, "})
            BOOST_TEST(has_text(r.out, line), r.out);
        BOOST_TEST(has_text(r.err, "'/Devices/UPS/Ghost Coil/Value' is not in the store"), r.err);
        BOOST_TEST(has_text(r.err, "ups.eds:103: [(15) Shifted] overlaps"), r.err);
        BOOST_TEST(has_text(r.err, "WARN [0] CModbusSettings: '" + parity +
                                       "' is \"X\", not one of None, Odd, Even; using None"),
                   r.err);
    }
    // A store without units: a warning of the settings alone.
    {
        CServerStore s(false);
        size_t removed = 0;
        BOOST_REQUIRE(s.store.store().remove("/Software/Data Servers/Modbus/Interface Type", true,
                                             removed) == 0);
        const CRunResult r = run_server(s, {"-c"});
        BOOST_TEST(r.status == 2, r.err);
        BOOST_TEST(has_text(r.err, "No units configured"), r.err);
    }
    // Errors: a broken file, and every other one still read.
    CServerStore s;
    break_unit2(s);
    const CRunResult r = run_server(s, {"--check"});
    BOOST_TEST(r.status == 1, r.err);
    BOOST_TEST(has_text(r.err, "Error parsing EDS file: '" + s.store.dir().file("broken.eds")),
               r.err);
    BOOST_TEST(has_text(r.out, " errors, "), r.out);
    BOOST_TEST(!has_text(r.out, "0 errors"), r.out);
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
    clean_store(s);
    const tk_string eds = s.store.dir().file("spell.eds");
    write_text(eds, eds_text);
    s.tcp("Mappings/U/EDS Paths", CElement::from_string(eds));
    const timeval stamp{981158400, 0}; // 2001-02-03 00:00:00 UTC
    s.store.define({{"/D/C/Value", CElement::TYPE_BOOL, CElement::from_bool(true), 0},
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
        const auto ctx = modbus_client(s.port, 5);
        uint8_t coil = 0;
        BOOST_TEST(modbus_read_bits(ctx.get(), 0, 1, &coil) == 1);
        BOOST_TEST(coil == 1); // not negated
        uint16_t regs[8] = {};
        BOOST_TEST(modbus_read_registers(ctx.get(), 0, 8, regs) == 8, modbus_strerror(errno));
        const std::vector<uint16_t> got(regs, regs + 8);
        const std::vector<uint16_t> expected = {10, 11, 0x3412, 0x0002, 0x0001, 2001, 0xff88,
                                                0xfffb};
        BOOST_TEST(got == expected, boost::test_tools::per_element());
    }
    // Strict: the first likely mistake stops the start.
    s.store.define("/Software/Data Servers/Modbus/Strict Mapping Files/Value", CElement::TYPE_BOOL,
                   CElement::from_bool(true));
    CServerProcess strict(s.store.dir(), {"-Ns"});
    BOOST_TEST(strict.wait(5000) == 1, strict.log());
    BOOST_TEST(has_text(strict.log(), "Error parsing EDS file: '" + eds + "': " + eds +
                                          ":5: [Coil] NegateValue = True: only \"true\" "
                                          "negates (mapping files are strict)"),
               strict.log());
    BOOST_TEST(!has_text(strict.log(), ":9: [TRUE]"), strict.log());
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
        const long pid = daemon_pid(r.err, "serving in the background");
        BOOST_REQUIRE(pid > 0);
        BOOST_TEST(read_voltage(s.port) == 2300);
        ::kill(static_cast<pid_t>(pid), SIGTERM);
        BOOST_TEST(process_gone(pid));
    }
    // Waiting for the UPS handler: the starting process does not wait with it.
    CServerStore s(false);
    const CRunResult r = run_server(s, {"-Ns", "-d"});
    BOOST_TEST(r.status == 0, r.err);
    BOOST_TEST(has_text(r.err, "Waiting for the UPS handler"), r.err);
    BOOST_TEST(has_text(r.err, "waits in the background for the UPS handler"), r.err);
    const long pid = daemon_pid(r.err, "modbus_server: process");
    BOOST_REQUIRE(pid > 0);
    s.store.define(ups_leaf, CElement::TYPE_INT, CElement::from_int(1));
    BOOST_TEST(serves(s.port));
    ::kill(static_cast<pid_t>(pid), SIGTERM);
    BOOST_TEST(process_gone(pid));
}

BOOST_AUTO_TEST_CASE(help_and_version_exit_0) {
    CTempDir dir;
    for (const char* program : {"modbus_server", "modbus_profiler", "modbus_test"})
        for (const char* option : {"-h", "-v", "-hv"})
            BOOST_TEST(run_program(dir, program, {option}).status == 0, program << " " << option);
}

BOOST_AUTO_TEST_SUITE_END()
