// modbus_profiler run as a program against stores loaded with the sample configuration.
#include "data/sample_store.h"

#include <boost/test/unit_test.hpp>

#include <sstream>

using toolkit::CElement;

namespace {

const tk_string tcp_units = "/Software/Data Servers/Modbus/Interface Type/TCP/Mappings/";

CRunResult run_profiler(const CTempDir& dir, const std::vector<tk_string>& args) {
    return run_program(dir, "modbus_profiler", args);
}

// stderr without the warnings: the sample files overlap on purpose, which the parser points
// out at the default level.
tk_string without_warnings(const tk_string& err) {
    tk_string out;
    size_t start = 0;
    while (start < err.size()) {
        size_t end = err.find('\n', start);
        end = end == tk_string::npos ? err.size() : end + 1;
        const tk_string line = err.substr(start, end - start);
        if (!has_text(line, " WARN ["))
            out += line;
        start = end;
    }
    return out;
}

std::vector<tk_string> lines(const tk_string& text) {
    std::vector<tk_string> result;
    std::istringstream in(text);
    for (tk_string line; std::getline(in, line);)
        result.push_back(line);
    return result;
}

std::vector<tk_string> fields(const tk_string& line) {
    std::vector<tk_string> result(1);
    for (char c : line) {
        if (c == ',')
            result.emplace_back();
        else
            result.back() += c;
    }
    return result;
}

// The sample store with attributes for the profile, and units of its own: 44 (the meter
// again), 3 (a device where none of the file's parameters exists).
struct CProfileStore {
    CTestStore store;

    CProfileStore() {
        load_sample_store(store);
        text("/Devices/UPS/Identity/Model/DisplayName", "Model");
        text("/Devices/UPS/Identity/Model/Description", "Model name, as on the plate");
        text("/Devices/UPS/Identity/Serial/.Prominence", "Basic");
        text("/Devices/UPS/Breaker/Closed/DisplayName", "Breaker");
        text("/Devices/UPS/Breaker/Closed/PossibleValues", "0=Open;1=Closed");
        text("/Devices/UPS/Battery/Temperature/.Prominence", "Advanced");
        text("/Devices/UPS/Input/Switch B/.Prominence", "Hidden");
        unit("Unit44", 44, "/Devices/Meter", sample_data("eds/meter.eds"));
        unit("Unit3", 3, "/Devices/Empty", sample_data("eds/ups.eds"));
        text("/Devices/Empty/Other/Value", "not mapped");
    }

    void text(const tk_string& path, const tk_string& value) {
        store.define(path, CElement::TYPE_STRING, CElement::from_string(value));
    }
    void unit(const tk_string& node, unsigned id, const tk_string& device, const tk_string& eds) {
        store.define(tcp_units + node + "/Slave ID/Value", CElement::TYPE_UINT,
                     CElement::from_uint(id));
        text(tcp_units + node + "/Device Path/Value", device);
        text(tcp_units + node + "/EDS Paths/Value", eds);
    }
    CRunResult run(const std::vector<tk_string>& args) { return run_profiler(store.dir(), args); }
};

const char* const unit1_mode1 =
    "Parameter Name,Display Name,Base Address (0-based),Discrete,Units,Type,Size (bytes),"
    "Is Timestamp,Bit Offset,Swap Bytes,Swap Words,Divider,Multiplier,Date Spec,Alarm On False,"
    "Writable,Modbus Value,Possible Values,Description\n"
    "/Identity/Model,Model,0,No,,STRING,8,No,,No,No,,,,,No,UPS-3000,,Model name, as on the plate\n"
    "/Identity/Serial,,4,No,,STRING,7,No,,No,No,,,,,No,SN12345,,\n"
    "/Output/Voltage,,8,No,V,UINT,2,No,,No,No,,10,,,Yes,2300,,\n"
    "/Output/Current,,9,No,A,INT,2,No,,No,No,,100,,,No,1250,,\n"
    "/Battery/Charge Cycles,,10,No,,UINT,4,No,,No,No,,,,,Yes,70000,,\n"
    "/Input/Frequency,,12,No,Hz,FLOAT,4,No,,No,No,,,,,Yes,50.5,,\n"
    "/Input/Power,,14,No,kW,FLOAT,4,No,,Yes,Yes,,,,,No,1.5,,\n"
    "/Battery/Low,,17,No,,BOOLEAN,1,No,,No,No,,,,,Yes,1,,\n"
    "/Battery/Replace,,18,No,,BOOLEAN,1,No,8,No,No,,,,,No,1,,\n"
    "/Output/Energy,,19,No,,UINT,3,No,8,No,No,,,,,Yes,1193046,,\n"
    "/Status/Last Change,,22,No,,DATE,8,No,,No,No,,,YYmdHMSS,,Yes,2026-03-05T12:34:56.000000Z,,\n"
    "/Output/Voltage,,26,No,,DATE,4,Yes,,No,No,,,HMSS,,Yes,230,,\n"
    "/Overlap/Wide,,30,No,,UINT,4,No,,No,No,,,,,Yes,11141307,,\n"
    "/Overlap/Shifted,,31,No,,UINT,4,No,,No,No,,,,,Yes,13369565,,\n"
    "/Overlap/Same A,,34,No,,UINT,2,No,,No,No,,,,,Yes,257,,\n"
    "/Overlap/Same B,,34,No,,UINT,2,No,,No,No,,,,,Yes,514,,\n"
    "/Ghost,,51,No,,UINT,2,No,,No,No,,,,,Yes,,,\n"
    "/Identity/Location,,99,No,,STRING,8,No,,No,No,,,,,Yes,Rack 7A1,,\n"
    "/Extra/Counter,,200,No,,UINT,4,No,,No,No,,,,,Yes,123456,,\n"
    "/Battery/Low,,0,Yes,,,,,,,,,,,No,Yes,true,,\n"
    "/Battery/Replace,,1,Yes,,,,,,,,,,,No,No,true,,\n"
    "/Breaker/Closed,Breaker,2,Yes,,,,,,,,,,,Yes,Yes,true,0=Open;1=Closed,\n"
    "/Alarm/Overload,,4,Yes,,,,,,,,,,,No,No,false,,\n"
    "/Relay/One,,5,Yes,,,,,,,,,,,No,Yes,true,,\n"
    "/Relay/Two,,5,Yes,,,,,,,,,,,No,Yes,false,,\n"
    "/Ghost Coil,,7,Yes,,,,,,,,,,,No,Yes,,,\n"
    "/Input/Switch A,,10,Yes,,,,,,,,,,,No,No,true,,\n"
    "/Extra/Enable,,20,Yes,,,,,,,,,,,No,Yes,true,,\n";

} // namespace

BOOST_AUTO_TEST_SUITE(profiler)

// Registers first, then discretes, each in the server's walk order; texts unquoted, so the
// description's comma adds a column. Temperature (Advanced), Switch B (Hidden) and the
// parameters without a node (/Missing, /Missing Coil) have no row.
BOOST_AUTO_TEST_CASE(unit_in_each_mode) {
    CProfileStore s;
    const CRunResult full = s.run({"-u", "1", "-d"});
    BOOST_CHECK_EQUAL(full.status, 0);
    BOOST_CHECK_EQUAL(without_warnings(full.err), "");
    BOOST_CHECK_EQUAL(full.out, unit1_mode1);

    const CRunResult m2 = s.run({"-u", "1"});
    const auto l2 = lines(m2.out);
    BOOST_CHECK_EQUAL(m2.status, 0);
    BOOST_REQUIRE_EQUAL(l2.size(), 29u);
    BOOST_CHECK_EQUAL(l2[0], "Parameter Name,Display Name,Base Address (0-based),Discrete,Units,"
                             "Type,Size (bytes),Is Timestamp,Bit Offset,Swap Bytes,Swap Words,"
                             "Divider,Multiplier,Date Spec,Alarm On False,Writable,"
                             "Possible Values");
    BOOST_CHECK_EQUAL(l2[22], "/Breaker/Closed,Breaker,2,Yes,,,,,,,,,,,Yes,Yes,0=Open;1=Closed");

    const CRunResult m3 = s.run({"-u", "1", "-m", "-d"});
    const auto l3 = lines(m3.out);
    BOOST_CHECK_EQUAL(m3.status, 0);
    BOOST_REQUIRE_EQUAL(l3.size(), 29u);
    BOOST_CHECK_EQUAL(l3[0], "Parameter Name,Display Name,Base Address (0-based),Discrete,Units,"
                             "Type,Size (bytes),Is Timestamp,Alarm On False,Writable,Modbus Value,"
                             "Possible Values,Description");
    BOOST_CHECK_EQUAL(l3[7], "/Input/Power,,14,No,kW,FLOAT,4,No,,No,1.5,,");
    BOOST_CHECK_EQUAL(l3[12], "/Output/Voltage,,26,No,,DATE,4,Yes,,Yes,230,,");

    const CRunResult m4 = s.run({"--master-mapping", "--unit-id", "1"});
    const auto l4 = lines(m4.out);
    BOOST_CHECK_EQUAL(m4.status, 0);
    BOOST_REQUIRE_EQUAL(l4.size(), 29u);
    BOOST_CHECK_EQUAL(l4[0], "Parameter Name,Display Name,Base Address (0-based),Discrete,Units,"
                             "Type,Size (bytes),Is Timestamp,Alarm On False,Writable,"
                             "Possible Values");
    BOOST_CHECK_EQUAL(l4[22], "/Breaker/Closed,Breaker,2,Yes,,,,,Yes,Yes,0=Open;1=Closed");
}

// Every address one higher, the header saying so; 65535 wraps to 0.
BOOST_AUTO_TEST_CASE(one_based) {
    CProfileStore s;
    const tk_string eds = s.store.dir().file("top.eds");
    write_text(eds, "[top]\nName = /Top/Value\nAddress = 65535\nExternalValueType = "
                    "DATATYPE_UINT\nSize = 2\n");
    s.unit("Unit5", 5, "/Devices/Top", eds);
    s.store.define("/Devices/Top/Top/Value", CElement::TYPE_UINT, CElement::from_uint(7));

    const auto zero = lines(s.run({"-u", "1", "-m"}).out);
    const auto one = lines(s.run({"-u", "1", "-m", "-o"}).out);
    BOOST_REQUIRE_EQUAL(zero.size(), one.size());
    BOOST_REQUIRE(!one.empty());
    BOOST_CHECK(has_text(one[0], ",Base Address (1-based),"));
    for (size_t i = 1; i < one.size(); ++i) {
        auto a = fields(zero[i]), b = fields(one[i]);
        BOOST_REQUIRE_EQUAL(a.size(), b.size());
        BOOST_CHECK_EQUAL(std::stoul(a[2]) + 1, std::stoul(b[2]));
        a[2] = b[2];
        BOOST_CHECK(a == b);
    }

    const auto top = lines(s.run({"-u", "5", "-o", "-m"}).out);
    BOOST_REQUIRE_EQUAL(top.size(), 2u);
    BOOST_CHECK_EQUAL(top[1], "/Top,,0,No,,UINT,2,No,,No,");
}

// TCP units by the low 8 bits of the id; -s picks the serial slave instead.
BOOST_AUTO_TEST_CASE(unit_selection) {
    CProfileStore s;
    const CRunResult meter = s.run({"-u", "44", "-d"});
    BOOST_CHECK_EQUAL(meter.status, 0);
    BOOST_CHECK_EQUAL(lines(meter.out).size(), 4u);
    BOOST_CHECK(has_text(meter.out, "\n/Voltage,,2,No,,UINT,2,No,,No,No,,10,,,Yes,2305,,\n"));
    BOOST_CHECK_EQUAL(s.run({"-u", "300", "-d"}).out, meter.out);
    BOOST_CHECK_EQUAL(s.run({"-s", "0", "-u", "17", "-d"}).out, meter.out);

    // Slave 1 serves ups.eds only; TCP unit 1 adds ups_extra.eds.
    const CRunResult slave1 = s.run({"-s", "0", "-u", "1"});
    BOOST_CHECK_EQUAL(slave1.status, 0);
    BOOST_CHECK(has_text(slave1.out, "\n/Identity/Model,"));
    BOOST_CHECK(!has_text(slave1.out, "/Extra/"));
    BOOST_CHECK(has_text(s.run({"-u", "1"}).out, "\n/Extra/Counter,"));
}

// Units the settings lack, and none chosen, are errors; a unit whose parameters are not in
// the store prints nothing, not even the header.
BOOST_AUTO_TEST_CASE(no_such_unit_or_nothing_to_print) {
    CProfileStore s;
    const tk_string no_unit = "Error: unsupported Unit ID or Serial Interface\n";
    const tk_string none = "Error: No Unit ID was selected\n";
    const std::vector<std::pair<std::vector<tk_string>, tk_string>> cases = {
        {{"-u", "9"}, no_unit},
        {{"-u", "256"}, no_unit},
        {{"-s", "1", "-u", "17"}, no_unit},
        {{"-s", "0", "-u", "2"}, no_unit},
        {{}, none},
        {{"-s", "0", "-d"}, none},
        {{"-u", "3", "-d"}, ""},
    };
    for (const auto& c : cases) {
        const CRunResult r = s.run(c.first);
        BOOST_TEST_CONTEXT(c.second) {
            BOOST_CHECK_EQUAL(r.status, c.second.empty() ? 0 : 1);
            BOOST_CHECK_EQUAL(r.out, "");
            BOOST_CHECK_EQUAL(without_warnings(r.err), c.second);
        }
    }
}

BOOST_AUTO_TEST_CASE(bad_command_lines) {
    CProfileStore s;
    const std::vector<std::pair<std::vector<tk_string>, tk_string>> cases = {
        {{"-u", "one"}, "Error: invalid (non-numeric) argument 'one'\n"},
        {{"-u", "65536"}, "Error: value '65536' greater than the allowed maximum (65535)\n"},
        {{"-u", "1", "-s", "1001"},
         "Error: value '1001' greater than the allowed maximum (1000)\n"},
        {{"-u", "1", "-l", ""}, "Error: Invalid empty string\n"},
        {{"-u"}, "Usage: "},
        {{"-u", "1", "--unit", "1"}, "Usage: "},
        {{"-u", "1", "-Ds", "nowhere", "2"}, "Unknown subsystem 'nowhere'\n"},
    };
    for (const auto& c : cases) {
        const CRunResult r = s.run(c.first);
        BOOST_TEST_CONTEXT(c.second) {
            BOOST_CHECK_EQUAL(r.status, 1);
            BOOST_CHECK_EQUAL(r.out, "");
            BOOST_CHECK(has_text(r.err, c.second));
        }
    }
    // Help and the version are no errors; the version goes to stdout, in three lines.
    const CRunResult help = s.run({"-hv"});
    BOOST_CHECK_EQUAL(help.status, 0);
    BOOST_CHECK(has_text(help.err, "--unit-id : "));
    const CRunResult version = s.run({"--version"});
    BOOST_CHECK_EQUAL(version.status, 0);
    for (const char* part : {"modbus_profiler: version ", "\nBuild date: ", "\n$Revision: "})
        BOOST_CHECK_MESSAGE(has_text(version.out, part), version.out);
}

// A store that cannot be opened and a mapping file that does not parse stop the profiler
// before it prints anything.
BOOST_AUTO_TEST_CASE(bad_store) {
    CProfileStore s;
    {
        CScopedEnv env("CDS_STORE", s.store.dir().file("none.db"));
        const CRunResult r = s.run({"-u", "1"});
        BOOST_CHECK_EQUAL(r.status, 1);
        BOOST_CHECK_EQUAL(r.out, "");
        BOOST_CHECK(has_text(r.err, "none.db"));
        BOOST_CHECK(has_text(r.err, "Couldn't connect to CDS"));
    }
    const tk_string eds = s.store.dir().file("broken.eds");
    write_text(eds, "[p]\nName = /X/Value\nthis is not a key\n");
    s.unit("Unit6", 6, "/Devices/UPS", eds);
    const CRunResult r = s.run({"-u", "1"});
    BOOST_CHECK_EQUAL(r.status, 1);
    BOOST_CHECK_EQUAL(r.out, "");
    BOOST_CHECK(has_text(r.err, "Error parsing EDS file: '" + eds + "'"));
}

// The profiler reads the settings as the server does and shows the same warnings by default;
// a unit left out is not profiled.
BOOST_AUTO_TEST_CASE(settings_warnings_show) {
    CProfileStore s;
    const tk_string com1 = "/Software/Data Servers/Modbus/Interface Type/Serial/Interface/COM1";
    s.text(com1 + "/Parity/Value", "odd");
    s.text(tcp_units + "Unit44/Slave ID/Value", "x");
    const CRunResult r = s.run({"-u", "17", "-s", "0", "-m"});
    BOOST_CHECK_EQUAL(r.status, 0);
    BOOST_CHECK(has_text(r.out, "/Energy/Total"));
    BOOST_CHECK(has_text(r.err, "WARN [0] CModbusSettings: '" + com1 +
                                    "/Parity/Value' is \"odd\", not one of None, Odd, Even; "
                                    "using None"));
    BOOST_CHECK(has_text(r.err, "ERROR [0] CModbusSettings: TCP unit 'Unit44' left out"));
    BOOST_CHECK_EQUAL(s.run({"-u", "44"}).status, 1);
}

BOOST_AUTO_TEST_SUITE_END()
