#include "toolkit/cds_store.h"
#include "toolkit/store_fixture.h"

#include <boost/test/unit_test.hpp>

#include <thread>

namespace {

// A tree with every type, names with blanks and non-ASCII text, and values at the edges.
const char k_tree[] = R"({
  "Software": {
    "Data Servers": {
      "Modbus": {
        "TCP": {
          "Port": {"$type": "uint", "$value": 502},
          "Timeout": 2.5,
          "Enabled": true,
          "Units": {"1": {"EDS Paths": "/etc/a.eds;/etc/b.eds"}}
        },
        "Zero Fill": false
      }
    }
  },
  "Measurements": {
    "Voltage L1": {"$type": "float", "$value": 230.25, "$property": 17},
    "Temp \u00b0C": -12,
    "Big": {"$type": "uint", "$value": 18446744073709551615},
    "Small": -9223372036854775808,
    "Whole Float": 3.0,
    "Nan": {"$type": "float", "$value": "nan"},
    "Started": {"$type": "time", "$value": "2024-05-01T12:00:00.25Z"},
    "Empty": ""
  },
  "ReadOnlyCDS": false
})";

struct CCdsctlFixture {
    CTempDir dir;
    tk_string store = dir.file("a.db");

    CRunResult run(std::vector<tk_string> args, const tk_string& db = tk_string()) {
        args.insert(args.begin(), {"--store", db.empty() ? store : db});
        return run_cdsctl(dir, args);
    }
    void ok(const std::vector<tk_string>& args, const tk_string& db = tk_string()) {
        const CRunResult r = run(args, db);
        BOOST_REQUIRE_MESSAGE(r.status == 0, args[0] << ": " << r.err);
    }
    tk_string dump(const tk_string& db, bool flat = false) {
        const CRunResult r = run(
            flat ? std::vector<tk_string>{"dump", "--flat"} : std::vector<tk_string>{"dump"}, db);
        BOOST_REQUIRE_MESSAGE(r.status == 0, r.err);
        return r.out;
    }
};

} // namespace

BOOST_FIXTURE_TEST_SUITE(cdsctl, CCdsctlFixture)

BOOST_AUTO_TEST_CASE(load_dump_load_round_trip) {
    write_text(dir.file("tree.json"), k_tree);
    ok({"init"});
    ok({"load", dir.file("tree.json")});
    const tk_string first = dump(store);
    write_text(dir.file("first.json"), first);

    // The dump loads into a new store and dumps the same, as a tree and flat.
    const tk_string second_store = dir.file("b.db");
    ok({"init"}, second_store);
    ok({"load", dir.file("first.json")}, second_store);
    BOOST_TEST(dump(second_store) == first);
    write_text(dir.file("flat.json"), dump(store, true));
    const tk_string third_store = dir.file("c.db");
    ok({"init"}, third_store);
    ok({"load", dir.file("flat.json")}, third_store);
    BOOST_TEST(dump(third_store) == first);

    // And it is the tree that was loaded.
    toolkit::CCdsStore s;
    BOOST_REQUIRE_EQUAL(s.open(third_store), 0);
    std::vector<toolkit::CLeafInfo> leaves;
    BOOST_REQUIRE_EQUAL(s.list("/Measurements", leaves), 0);
    BOOST_REQUIRE_EQUAL(leaves.size(), 8u);
    BOOST_TEST(leaves[0].path == "/Measurements/Big");
    BOOST_TEST(leaves[0].value.to_uint() == 18446744073709551615ull);
    BOOST_TEST(leaves[2].path == "/Measurements/Nan");
    BOOST_TEST(leaves[2].value.str() == "nan");
    BOOST_TEST(leaves[3].value.to_int() == INT64_MIN);
    BOOST_TEST(leaves[4].value.to_timeval().tv_usec == 250000);
    BOOST_TEST(leaves[5].path == "/Measurements/Temp \xC2\xB0"
                                 "C");
    BOOST_TEST(leaves[6].property == 17u);
    BOOST_TEST(leaves[6].type == toolkit::CElement::TYPE_FLOAT);
    BOOST_TEST(has_text(first, "\"Whole Float\": 3.0"));

    // dump of a subtree keeps absolute paths; of a leaf, just that leaf.
    const CRunResult sub = run({"dump", "/Software/Data Servers/Modbus/TCP/Port"});
    BOOST_TEST(has_text(sub.out, "\"Software\""));
    BOOST_TEST(!has_text(sub.out, "Timeout"));
}

BOOST_AUTO_TEST_CASE(malformed_json_writes_nothing) {
    ok({"init"});
    write_text(dir.file("tree.json"), k_tree);
    ok({"load", dir.file("tree.json")});
    const tk_string before = dump(store);
    // Deep enough to overflow the stack of a reader that recurses without a bound.
    tk_string nested;
    for (int i = 0; i < 100000; ++i)
        nested += "{\"a\":";
    nested += "1" + tk_string(100000, '}');
    struct {
        tk_string text;
        const char* message;
    } cases[] = {
        {nested, "nesting deeper than 64 levels"},
        // A flat path just as deep: its tree dump could not be loaded back.
        {"{\"" + [] {
             tk_string p;
             for (int i = 0; i < 65; ++i)
                 p += "//x";
             return p;
         }() + "\": 1}",
         "nesting deeper than 64 levels"},
        {"{\"/A/B\":\n 1e400}", ":2:2: number overflow parsing '1e400'"},
        {"{\"a\": -1e400}", ":1:7: number overflow"},
        {"{\"a\": {\"$type\": \"bool\", \"$value\": 2}}", "/a: '2' is not a bool"},
        {"{\"a\": {\"$type\": \"bool\", \"$value\": \"yes\"}}", "/a: 'yes' is not a bool"},
        {"{\"a\": {\"$type\": \"time\", \"$value\": 9e18}}", "/a: time 9e+18 is out of range"},
        {"{\"a\": {\"$type\": \"time\", \"$value\": 253402300800}}", "out of range"},
        {"{\"a\": {\"$type\": \"time\", \"$value\": \"-9000000000000000000\"}}", "out of range"},
        {"{\"a\": {\"$type\": \"time\", \"$value\": true}}", "/a: 'true' is not a time"},
        {"{\n  \"a\": 1,\n  \"b\": [1,\n  \"c\": }\n", ":4:6: "},
        {"{\"a\": 1", ":1:7: "},
        {"", ":1:0: "},
        {"{\"a\": {\"b\": null}}", "/a/b: null"},
        {"{\"a\": [1, 2]}", "/a: an array"},
        {"{\"a\": 1, \"/b\": 2}", "absolute paths"},
        {"{\"a\": {}}", "/a: an empty object"},
        {"{\"$a\": 1}", "reserved"},
        {"{\"a\": {\"$type\": \"word\", \"$value\": 1}}", "/a: \"$type\""},
        {"{\"a\": {\"$type\": \"uint\", \"$value\": -1}}", "/a: '-1' is not a valid uint"},
        {"{\"a\": {\"$type\": \"int\", \"$value\": 1, \"$extra\": 2}}", "$extra"},
        {"{\"ReadOnlyCDS\": {\"x\": 1}}", "/ReadOnlyCDS is a leaf"},
        {"{\"Software\": 1}", "/Software: is a node"},
        {"[1, 2]", "JSON object"},
    };
    for (const auto& c : cases) {
        const tk_string shown = c.text.substr(0, 80);
        write_text(dir.file("bad.json"), c.text);
        const CRunResult r = run({"load", dir.file("bad.json")});
        BOOST_TEST(r.status == 1, shown);
        BOOST_TEST(has_text(r.err, c.message), shown << " gave " << r.err);
        // One message, one line.
        BOOST_TEST(r.err.find('\n') == r.err.size() - 1, shown << " gave " << r.err);
    }
    BOOST_TEST(dump(store) == before);
    const CRunResult missing = run({"load", dir.file("none.json")});
    BOOST_TEST(missing.status == 1);
    BOOST_TEST(has_text(missing.err, dir.file("none.json")));
    const CRunResult folder = run({"load", dir.path()});
    BOOST_TEST(folder.status == 1);
    BOOST_TEST(has_text(folder.err, "not a regular file"));
}

BOOST_AUTO_TEST_CASE(get_set_ls_rm) {
    ok({"init"});
    write_text(dir.file("tree.json"), k_tree);
    ok({"load", dir.file("tree.json")});
    const tk_string port = "/Software/Data Servers/Modbus/TCP/Port";

    CRunResult r = run({"get", port});
    BOOST_TEST(r.out == "502\n");
    r = run({"get", port,
             "//Measurements//Temp \xC2\xB0"
             "C",
             "/Software/Data Servers/Modbus/Children"});
    BOOST_TEST(r.out == port + " = 502\n//Measurements//Temp \xC2\xB0" + "C = -12\n" +
                            "/Software/Data Servers/Modbus/Children = TCP;Zero Fill\n");
    r = run({"get", "--long", "/Measurements/Voltage L1"});
    BOOST_TEST(has_text(r.out, "230.25  (float, "));
    BOOST_TEST(has_text(r.out, "property 17)"));
    r = run({"get", port, "/Nope"});
    BOOST_TEST(r.status == 1);
    BOOST_TEST(r.out == port + " = 502\n");
    BOOST_TEST(has_text(r.err, "/Nope: no such leaf"));

    ok({"set", port, "503"});
    BOOST_TEST(run({"get", port}).out == "503\n");
    r = run({"set", port, "-1"});
    BOOST_TEST(r.status == 1);
    BOOST_TEST(has_text(r.err, port + ": '-1' is not a valid uint"), r.err);
    r = run({"set", "/New", "1"});
    BOOST_TEST(has_text(r.err, "/New: no such leaf (give --type to create it)"), r.err);
    ok({"set", "/New", "1.5", "--type", "float"});
    // Values the store would quietly bend are refused, with --type or into a leaf.
    ok({"set", "/Flag", "1", "--type", "bool"});
    ok({"set", "/Stamp", "9999-12-31T23:59:59Z", "--type", "time"});
    for (const std::vector<tk_string>& args : {std::vector<tk_string>{"set", "/Flag", "2"},
                                               {"set", "/Flag", "2", "--type", "bool"},
                                               {"set", "/Stamp", "9e18"},
                                               {"set", "/Stamp", "-1e18", "--type", "time"},
                                               {"set", "/Stamp", "253402300800"}}) {
        r = run(args);
        BOOST_TEST(r.status == 1, args[2]);
        BOOST_TEST((has_text(r.err, "is not a bool") || has_text(r.err, "out of range")), r.err);
    }
    BOOST_TEST(run({"get", "/Flag", "/Stamp"}).out ==
               "/Flag = true\n/Stamp = 9999-12-31T23:59:59.000000Z\n");
    ok({"rm", "/Flag"});
    ok({"rm", "/Stamp"});
    BOOST_TEST(run({"get", "--long", "/New"}).out.find("1.5  (float") == 0u);
    ok({"set", "/New", "x", "--type=string", "--property", "4"});
    BOOST_TEST(has_text(run({"get", "-l", "/New"}).out, "x  (string"));
    BOOST_TEST(run({"set", "/New", "1", "--type", "double"}).status == 2);

    r = run({"ls", "/Software/Data Servers/Modbus"});
    BOOST_TEST(r.out == "TCP/\nZero Fill\n");
    BOOST_TEST(run({"ls", "/Nope"}).status == 1);
    r = run({"rm", "/Software"});
    BOOST_TEST(r.status == 1);
    BOOST_TEST(has_text(r.err, "is a node"));
    r = run({"rm", "-r", "/Software"});
    BOOST_TEST(r.out == "removed 5 leaves\n");
    BOOST_TEST(run({"ls"}).out == "Measurements/\nNew\nReadOnlyCDS\n");
}

BOOST_AUTO_TEST_CASE(events_and_watchdog) {
    ok({"init"});
    ok({"event", "add", "--id", "7", "--kind", "4", "--time", "1970-01-01T00:01:40Z", "--source",
        "/Sensors/OverVolt", "--attach", "w1.dat", "--attach", "w2.dat", "--value", "-3"});
    ok({"event", "add", "--id", "8", "--kind", "8", "--time", "200.5", "--completion", "2"});
    CRunResult r = run({"events"});
    BOOST_TEST(r.out == "1970-01-01T00:01:40.000000Z  id 7  kind 4  completion 0  value -3  source "
                        "/Sensors/OverVolt  attachments w1.dat, w2.dat\n"
                        "1970-01-01T00:03:20.500000Z  id 8  kind 8  completion 2  value 0\n");
    BOOST_TEST(run({"events", "1"}).out.find("1970-01-01T00:03:20") == 0u);
    BOOST_TEST(has_text(run({"events", "--before", "150"}).out, "id 7"));
    BOOST_TEST(run({"event", "add", "--kind", "4"}).status == 2);
    BOOST_TEST(run({"event", "add", "--id", "x", "--kind", "4"}).status == 2);

    BOOST_TEST(has_text(run({"watchdog"}).out, "no processes"));
    {
        CScopedEnv env("CDS_STORE", store);
        toolkit::CCds cds;
        cds.set_handle(kvr_init(0));
        api_status_t status = 0;
        BOOST_REQUIRE_EQUAL(cds.watchdog_register(status, "fast", 1, true), 0);
        BOOST_REQUIRE_EQUAL(cds.watchdog_register(status, "slow", 3600000, true), 0);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    r = run({"watchdog"});
    BOOST_TEST(has_text(r.out, "fast"));
    BOOST_TEST(r.out.find("OVERDUE") < r.out.find("slow"), r.out);
    BOOST_TEST(r.out.find("ok") > r.out.find("slow"), r.out);
}

BOOST_AUTO_TEST_CASE(command_line_errors_and_help) {
    CRunResult r = run_cdsctl(dir, {"--help"});
    BOOST_TEST(r.status == 0);
    for (const char* cmd : {"init", "load", "dump", "get", "set", "ls", "rm", "event", "events",
                            "watchdog", "CDS_STORE"})
        BOOST_TEST(has_text(r.out, cmd), cmd);
    r = run_cdsctl(dir, {"-v"});
    BOOST_TEST(r.status == 0);
    BOOST_TEST(has_text(r.out, "cdsctl: version "), r.out);
    r = run_cdsctl(dir, {"load", "--help"});
    BOOST_TEST(r.status == 0);
    BOOST_TEST(has_text(r.out, "$type"));
    BOOST_TEST(run_cdsctl(dir, {}).status == 2);
    BOOST_TEST(run({"frobnicate"}).status == 2);
    r = run({"get"});
    BOOST_TEST(r.status == 2);
    BOOST_TEST(has_text(r.err, "cdsctl get --help"));
    BOOST_TEST(run({"ls", "--bogus"}).status == 2);
    BOOST_TEST(run({"event", "remove"}).status == 2);
    // No store: the message names the path and why.
    r = run({"get", "/a"});
    BOOST_TEST(r.status == 1);
    BOOST_TEST(has_text(r.err, "'" + store + "': No such file"), r.err);
    ok({"init"});
    r = run({"init"});
    BOOST_TEST(r.status == 1);
    BOOST_TEST(has_text(r.err, "exists"));
}

BOOST_AUTO_TEST_SUITE_END()
