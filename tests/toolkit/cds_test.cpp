#include "toolkit/cds_store.h"
#include "toolkit/store_fixture.h"

#include <boost/test/unit_test.hpp>

#include <sqlite3.h>

#include <cmath>
#include <limits>

using toolkit::CCds;
using toolkit::CElement;
using toolkit::CLeafInfo;

namespace {

timeval tv(time_t sec, suseconds_t usec) {
    timeval t;
    t.tv_sec = sec;
    t.tv_usec = usec;
    return t;
}

// A store with a small tree and a second connection opened through kvr_init.
struct CStoreFixture {
    CTestStore store;
    CCds cds;

    CStoreFixture() {
        store.define({
            {"/Dev/Port", CElement::TYPE_UINT, CElement::from_uint(502), 7},
            {"/Dev/Name", CElement::TYPE_STRING, CElement::from_string("unit 1"), 0},
            {"/Dev/Gain", CElement::TYPE_FLOAT, CElement::from_float(1.5), 0},
            {"/Dev/Offset", CElement::TYPE_INT, CElement::from_int(-3), 0},
            {"/Dev/On", CElement::TYPE_BOOL, CElement::from_bool(true), 0},
            {"/Dev/Since", CElement::TYPE_TIME, CElement::from_time(tv(100, 5)), 0},
            {"/Dev/Sub Node/Leaf", CElement::TYPE_INT, CElement::from_int(1), 0},
        });
        cds.set_handle(kvr_init(0));
        BOOST_REQUIRE_MESSAGE(cds.is_initialized(), kvr_last_error());
    }

    struct CRead {
        std::vector<api_status_t> statuses;
        std::vector<CElement> values;
        std::vector<element_property_t> sources;
    };
    CRead get(const std::vector<tk_string>& paths) {
        CRead r;
        BOOST_REQUIRE_EQUAL(cds.get_leaves(paths, r.statuses, r.values, r.sources), 0);
        BOOST_REQUIRE_EQUAL(r.statuses.size(), paths.size());
        BOOST_REQUIRE_EQUAL(r.values.size(), paths.size());
        BOOST_REQUIRE_EQUAL(r.sources.size(), paths.size());
        return r;
    }
    std::vector<api_status_t> set(const std::vector<tk_string>& paths,
                                  const std::vector<CElement>& values) {
        std::vector<api_status_t> statuses;
        BOOST_REQUIRE_EQUAL(cds.set_leaves(paths, values,
                                           std::vector<kvr_tribool_t>(paths.size(), 2), statuses,
                                           "test"),
                            0);
        BOOST_REQUIRE_EQUAL(statuses.size(), paths.size());
        return statuses;
    }
};

void exec_sql(const tk_string& path, const char* sql) {
    sqlite3* db = nullptr;
    BOOST_REQUIRE_EQUAL(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    BOOST_CHECK_EQUAL(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
}

} // namespace

BOOST_AUTO_TEST_SUITE(cds_store)

BOOST_AUTO_TEST_CASE(opening_fails_clearly_and_changes_nothing) {
    CTempDir dir;
    struct {
        tk_string file;
        tk_string content;
        const char* why;
    } cases[] = {
        {dir.file("missing.db"), "", "No such file"},
        {dir.file("text.db"), tk_string(4096, 'x'), "not a data store"},
        {dir.file("empty.db"), "", "not a data store"},
    };
    for (const auto& c : cases) {
        if (c.file != dir.file("missing.db"))
            write_text(c.file, c.content);
        CScopedEnv env("CDS_STORE", c.file);
        BOOST_TEST(!kvr_init(0));
        BOOST_TEST(has_text(kvr_last_error(), "'" + c.file + "'"), kvr_last_error());
        BOOST_TEST(has_text(kvr_last_error(), c.why), kvr_last_error());
        if (c.file != dir.file("missing.db"))
            BOOST_TEST(read_text(c.file) == c.content);
    }
    BOOST_TEST(::access(dir.file("missing.db").c_str(), F_OK) != 0);

    // A store of another schema version.
    const tk_string other = dir.file("other.db");
    tk_string error;
    BOOST_REQUIRE_EQUAL(toolkit::CCdsStore::create(other, error), 0);
    exec_sql(other, "UPDATE schema_version SET version = 99");
    CScopedEnv env("CDS_STORE", other);
    BOOST_TEST(!kvr_init(0));
    BOOST_TEST(has_text(kvr_last_error(), "schema version 99"), kvr_last_error());

    // Creating never takes over an existing file.
    BOOST_TEST(toolkit::CCdsStore::create(other, error) != 0);
    BOOST_TEST(has_text(error, "exists"), error);
    BOOST_TEST(kvr_store_path() == other);
}

BOOST_FIXTURE_TEST_CASE(batch_read_statuses_and_values, CStoreFixture) {
    CRead r = get({"/Dev/Port", "/Dev/Name", "/Dev/Gain", "/Dev/Offset", "/Dev/On", "/Dev/Since",
                   "/Dev/Missing", "/Dev", "/Dev/Port/x", ""});
    BOOST_TEST(r.statuses[0] == API_STATUS_OK);
    BOOST_TEST((r.values[0].type() == CElement::TYPE_UINT && r.values[0].to_uint() == 502u));
    BOOST_TEST(r.sources[0] == 7u);
    BOOST_TEST(r.values[1].str() == "unit 1");
    BOOST_TEST(r.values[2].to_float() == 1.5);
    BOOST_TEST(r.values[3].to_int() == -3);
    BOOST_TEST(r.values[4].to_bool());
    BOOST_TEST(r.values[5].to_timeval().tv_usec == 5);
    BOOST_TEST(!CElement::is_invalid_time(r.values[0].time()));
    for (size_t i = 6; i < r.statuses.size(); ++i) {
        BOOST_TEST(r.statuses[i] == API_STATUS_NOT_FOUND, i);
        BOOST_TEST(!r.values[i].has_value());
    }
    // An empty batch is fine.
    BOOST_TEST(get({}).statuses.empty());
}

BOOST_FIXTURE_TEST_CASE(slashes_fold, CStoreFixture) {
    CRead r = get({"//Dev//Port", "/Dev/Port/", "Dev/Port", "///Dev///Sub Node//Leaf//"});
    for (size_t i = 0; i < r.statuses.size(); ++i)
        BOOST_TEST(r.statuses[i] == API_STATUS_OK, i);
    BOOST_TEST(set({"//Dev///Offset"}, {CElement::from_int(9)})[0] == API_STATUS_OK);
    BOOST_TEST(store.value("/Dev/Offset").to_int() == 9);
    BOOST_TEST(toolkit::CCdsStore::normal_path("a//b/") == "/a/b");
    BOOST_TEST(toolkit::CCdsStore::normal_path("") == "/");
}

BOOST_FIXTURE_TEST_CASE(children_answered_by_the_store, CStoreFixture) {
    // Names chosen so that path order and name order differ ('!' and ' ' sort before '/').
    store.define({{"/T/a", CElement::TYPE_INT, CElement::from_int(1), 0},
                  {"/T/a b/x", CElement::TYPE_INT, CElement::from_int(1), 0},
                  {"/T/a!", CElement::TYPE_INT, CElement::from_int(1), 0},
                  {"/T/b/c/d", CElement::TYPE_INT, CElement::from_int(1), 0},
                  {"/T/b/e", CElement::TYPE_INT, CElement::from_int(1), 0},
                  {"/Tz", CElement::TYPE_INT, CElement::from_int(1), 0}});
    CRead r = get({"/T/Children", "/Children", "//T//b/Children", "/Dev/Children", "/T/a/Children",
                   "/Nope/Children", "/T/b/c/Children"});
    BOOST_TEST(r.values[0].str() == "a;a b;a!;b");
    BOOST_TEST(r.values[1].str() == "Dev;T;Tz");
    BOOST_TEST(r.values[2].str() == "c;e");
    BOOST_TEST(r.values[3].str() == "Gain;Name;Offset;On;Port;Since;Sub Node");
    BOOST_TEST(r.statuses[4] == API_STATUS_NOT_FOUND); // a leaf has no children
    BOOST_TEST(r.statuses[5] == API_STATUS_NOT_FOUND);
    BOOST_TEST(r.values[6].str() == "d");
    // Children is not a leaf that can be written.
    BOOST_TEST(set({"/T/Children"}, {CElement::from_string("x")})[0] == API_STATUS_NOT_FOUND);
    std::vector<std::pair<tk_string, bool>> names;
    BOOST_REQUIRE_EQUAL(store.store().children("/T", names), 0);
    BOOST_REQUIRE_EQUAL(names.size(), 4u);
    BOOST_TEST((names[0].first == "a" && !names[0].second));
    BOOST_TEST((names[1].first == "a b" && names[1].second));
}

BOOST_FIXTURE_TEST_CASE(writes_convert_to_the_leaf_type, CStoreFixture) {
    const std::vector<api_status_t> st =
        set({"/Dev/Gain", "/Dev/Port", "/Dev/Offset", "/Dev/On", "/Dev/Name", "/Dev/Since",
             "/Dev/Missing", "/Dev/Port", "/Dev/Gain"},
            {CElement::from_uint(7), CElement::from_string("12"), CElement::from_float(-2.6),
             CElement::from_int(0), CElement::from_float(0.5),
             CElement::from_string("1970-01-01T00:00:10Z"), CElement::from_int(1),
             CElement::from_int(-1), CElement::from_string("abc")});
    const std::vector<api_status_t> expected = {
        API_STATUS_OK,        API_STATUS_OK,        API_STATUS_OK,
        API_STATUS_OK,        API_STATUS_OK,        API_STATUS_OK,
        API_STATUS_NOT_FOUND, API_STATUS_BAD_VALUE, API_STATUS_BAD_VALUE};
    BOOST_TEST(st == expected, boost::test_tools::per_element());
    // The refused leaves of a batch do not stop the others.
    CRead r = get({"/Dev/Gain", "/Dev/Port", "/Dev/Offset", "/Dev/On", "/Dev/Name", "/Dev/Since"});
    BOOST_TEST((r.values[0].type() == CElement::TYPE_FLOAT && r.values[0].to_float() == 7.0));
    BOOST_TEST((r.values[1].type() == CElement::TYPE_UINT && r.values[1].to_uint() == 12u));
    BOOST_TEST(r.values[2].to_int() == -3);
    BOOST_TEST(!r.values[3].to_bool());
    BOOST_TEST(r.values[4].str() == "0.5");
    BOOST_TEST(r.values[5].to_timeval().tv_sec == 10);
    // The property word stays; extreme values survive the file.
    BOOST_TEST(r.sources[1] == 7u);
    store.define(
        {{"/X/nan", CElement::TYPE_FLOAT, CElement::from_float(std::nan("")), 0},
         {"/X/big", CElement::TYPE_UINT, CElement::from_uint(std::numeric_limits<uint64_t>::max()),
          0},
         {"/X/min", CElement::TYPE_INT, CElement::from_int(std::numeric_limits<int64_t>::min()), 0},
         {"/X/text", CElement::TYPE_STRING, CElement::from_string(tk_string("a\0b", 3)), 0}});
    r = get({"/X/nan", "/X/big", "/X/min", "/X/text"});
    BOOST_TEST(std::isnan(r.values[0].to_float()));
    BOOST_TEST(r.values[1].to_uint() == std::numeric_limits<uint64_t>::max());
    BOOST_TEST(r.values[2].to_int() == std::numeric_limits<int64_t>::min());
    BOOST_TEST(r.values[3].str() == tk_string("a\0b", 3));
}

BOOST_FIXTURE_TEST_CASE(reads_see_every_commit, CStoreFixture) {
    // cds caches what it reads; commits of other connections and its own must show at once.
    CCds other;
    other.set_handle(kvr_init(0));
    BOOST_REQUIRE(other.is_initialized());
    std::vector<api_status_t> st;
    for (int i = 0; i < 50; ++i) {
        BOOST_TEST(get({"/Dev/Offset", "/Dev/Port"}).values[0].to_int() == (i == 0 ? -3 : i - 1));
        BOOST_REQUIRE_EQUAL(
            other.set_leaves({"/Dev/Offset"}, {CElement::from_int(i)}, {2}, st, "other"), 0);
        BOOST_TEST(get({"/Dev/Port", "/Dev/Offset"}).values[1].to_int() == i);
        if (i % 10 == 0) {
            set({"/Dev/Port"}, {CElement::from_uint(i)});
            BOOST_TEST(get({"/Dev/Port"}).values[0].to_uint() == unsigned(i));
        }
    }
    // Structure changes by the administration side show too, also for leaves that were
    // cached as missing.
    BOOST_TEST(get({"/Dev/New"}).statuses[0] == API_STATUS_NOT_FOUND);
    BOOST_TEST(get({"/Dev/Children"}).values[0].str() == "Gain;Name;Offset;On;Port;Since;Sub Node");
    store.define({{"/Dev/New", CElement::TYPE_INT, CElement::from_int(1), 0}});
    size_t removed = 0;
    BOOST_REQUIRE_EQUAL(store.store().remove("/Dev/Sub Node", true, removed), 0);
    BOOST_TEST(removed == 1u);
    CRead r = get({"/Dev/Children", "/Dev/New", "/Dev/Sub Node/Leaf"});
    BOOST_TEST(r.values[0].str() == "Gain;Name;New;Offset;On;Port;Since");
    BOOST_TEST(r.statuses[1] == API_STATUS_OK);
    BOOST_TEST(r.statuses[2] == API_STATUS_NOT_FOUND);

    // A writer that knows nothing of the cache (the sqlite3 shell) is seen as well.
    exec_sql(store.path(), "UPDATE leaves SET value = 77 WHERE path = '/Dev/Offset'");
    BOOST_TEST(get({"/Dev/Offset"}).values[0].to_int() == 77);

    // Many leaves written at once by another connection.
    std::vector<CLeafInfo> many;
    std::vector<tk_string> paths;
    for (int i = 0; i < 600; ++i) {
        paths.push_back("/Many/" + std::to_string(i));
        many.push_back({paths.back(), CElement::TYPE_INT, CElement::from_int(0), 0});
    }
    store.define(many);
    for (int k = 1; k <= 3; ++k) {
        BOOST_TEST(get(paths).values[599].to_int() == k - 1);
        const size_t count = k == 1 ? 10 : k == 2 ? 300 : 600;
        std::vector<tk_string> some(paths.begin(), paths.begin() + count);
        some.push_back(paths[599]);
        BOOST_REQUIRE_EQUAL(
            other.set_leaves(some, std::vector<CElement>(some.size(), CElement::from_int(k)),
                             std::vector<kvr_tribool_t>(some.size(), 2), st, "other"),
            0);
        r = get(paths);
        BOOST_TEST(r.values[0].to_int() == k);
        BOOST_TEST(r.values[count - 1].to_int() == k);
        BOOST_TEST(r.values[599].to_int() == k);
        if (count < 599)
            BOOST_TEST(r.values[count].to_int() == 0);
    }
}

BOOST_FIXTURE_TEST_CASE(defining_and_removing, CStoreFixture) {
    toolkit::CCdsStore& s = store.store();
    struct {
        std::vector<CLeafInfo> leaves;
        const char* why;
    } refused[] = {
        {{{"/Dev/Port/x", CElement::TYPE_INT, CElement::from_int(1), 0}}, "is a leaf"},
        {{{"/Dev", CElement::TYPE_INT, CElement::from_int(1), 0}}, "is a node"},
        {{{"/A/Children", CElement::TYPE_INT, CElement::from_int(1), 0}}, "Children"},
        {{{"/", CElement::TYPE_INT, CElement::from_int(1), 0}}, "root"},
        {{{"/A", CElement::TYPE_UINT, CElement::from_int(-1), 0}}, "not a valid uint"},
        {{{"/A", CElement::TYPE_NONE, CElement::from_int(1), 0}}, "no type"},
        // All or nothing: the good first leaf is not written either.
        {{{"/Good", CElement::TYPE_INT, CElement::from_int(1), 0},
          {"/Good/x", CElement::TYPE_INT, CElement::from_int(1), 0}},
         "/Good is a leaf"},
    };
    for (const auto& r : refused) {
        BOOST_TEST(s.define(r.leaves) != 0, r.why);
        BOOST_TEST(has_text(s.error(), r.why), s.error());
    }
    BOOST_TEST(get({"/Good", "/A"}).statuses ==
                   (std::vector<api_status_t>{API_STATUS_NOT_FOUND, API_STATUS_NOT_FOUND}),
               boost::test_tools::per_element());

    // Redefining changes the type.
    store.define("/Dev/Port", CElement::TYPE_STRING, CElement::from_string("tcp"));
    BOOST_TEST(get({"/Dev/Port"}).values[0].str() == "tcp");

    size_t removed = 0;
    BOOST_TEST(s.remove("/Dev", false, removed) != 0);
    BOOST_TEST(has_text(s.error(), "is a node"));
    BOOST_TEST(s.remove("/Nope", true, removed) != 0);
    BOOST_TEST(has_text(s.error(), "no such leaf or node"));
    BOOST_REQUIRE_EQUAL(s.remove("/Dev/Port", false, removed), 0);
    BOOST_TEST(removed == 1u);
    BOOST_REQUIRE_EQUAL(s.remove("/", true, removed), 0);
    BOOST_TEST(removed == 6u);
    BOOST_TEST(get({"/Children"}).statuses[0] == API_STATUS_NOT_FOUND);
}

BOOST_FIXTURE_TEST_CASE(watchdog, CStoreFixture) {
    api_status_t status = 0;
    BOOST_TEST(cds.watchdog_ping(status) == 0);
    BOOST_TEST(status != API_STATUS_OK); // not registered yet
    BOOST_REQUIRE_EQUAL(cds.watchdog_register(status, "modbus_server", 4000, true), 0);
    BOOST_TEST(status == API_STATUS_OK);
    BOOST_REQUIRE_EQUAL(cds.watchdog_ping(status), 0);
    BOOST_TEST(status == API_STATUS_OK);
    std::vector<toolkit::CWatchdogInfo> entries;
    BOOST_REQUIRE_EQUAL(store.store().watchdogs(entries), 0);
    BOOST_REQUIRE_EQUAL(entries.size(), 1u);
    BOOST_TEST(entries[0].ident == "modbus_server");
    BOOST_TEST(entries[0].timeout_ms == 4000u);
    BOOST_TEST(entries[0].pid == ::getpid());
    BOOST_TEST(entries[0].enabled);
    // A registration removed behind its back makes the ping fail.
    exec_sql(store.path(), "DELETE FROM watchdog");
    BOOST_REQUIRE_EQUAL(cds.watchdog_ping(status), 0);
    BOOST_TEST(status != API_STATUS_OK);
}

BOOST_AUTO_TEST_CASE(bad_calls_fail_without_crashing) {
    CCds none;
    std::vector<api_status_t> st;
    std::vector<CElement> values;
    std::vector<element_property_t> sources;
    BOOST_TEST(none.get_leaves({"/a"}, st, values, sources) != 0);
    BOOST_TEST(none.set_leaves({"/a"}, {CElement()}, {2}, st, "") != 0);
    BOOST_TEST(!none.error().empty());
    CStoreFixture f;
    BOOST_TEST(
        f.cds.set_leaves({"/Dev/Port", "/Dev/Gain"}, {CElement::from_int(1)}, {2, 2}, st, "") != 0);
    BOOST_TEST(f.store.value("/Dev/Port").to_uint() == 502u);
    // A value whose stored form does not match its type (a hand-edited file) is a failure.
    exec_sql(f.store.path(), "UPDATE leaves SET value = 'text' WHERE path = '/Dev/Offset'");
    BOOST_TEST(f.get({"/Dev/Offset"}).statuses[0] == API_STATUS_FAILURE);
}

BOOST_AUTO_TEST_SUITE_END()
