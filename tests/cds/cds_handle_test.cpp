#include "cds/cds_handle.h"
#include "toolkit/store_fixture.h"
#include "toolkit/sys_log.h"
#include "util/error.h"

#include <boost/test/unit_test.hpp>

#include <sqlite3.h>

using toolkit::CElement;

namespace {

struct CHandleFixture {
    CTestStore store;
    CHandleFixture() {
        store.define({
            {"/Dev/Port", CElement::TYPE_UINT, CElement::from_uint(502), 3},
            {"/Dev/Name", CElement::TYPE_STRING, CElement::from_string("unit"), 0},
            {"/Dev/Units/a", CElement::TYPE_INT, CElement::from_int(1), 0},
            {"/Dev/Units/b/x", CElement::TYPE_INT, CElement::from_int(2), 0},
            {"/Dev/Units/c", CElement::TYPE_INT, CElement::from_int(3), 0},
        });
    }
    // The status of writing value to one leaf through cds.
    static api_status_t write(CCdsHandle& cds, const char* path, int64_t value) {
        cds_leaf_set_t leaves;
        leaves.emplace(path, CElement::from_int(value));
        cds.set(leaves, "");
        return leaves.begin()->_status;
    }
};

const CCdsLeaf& find(const cds_leaf_set_t& leaves, const char* path) {
    auto it = leaves.find(CCdsLeaf(path));
    BOOST_REQUIRE(it != leaves.end());
    return *it;
}

} // namespace

BOOST_AUTO_TEST_SUITE(cds)

BOOST_AUTO_TEST_CASE(leaf_identity_is_the_path) {
    cds_leaf_set_t set;
    BOOST_TEST(set.emplace(tk_string("/a"), CElement::from_int(1, timeval{5, 6})).second);
    BOOST_TEST(!set.emplace(tk_string("/a"), CElement::from_string("other")).second);
    const CCdsLeaf& a = find(set, "/a");
    BOOST_TEST((a._element.to_int() == 1 && a._status == 0 && a._source == 0u));
    // Stamped by the store when written.
    BOOST_TEST(CElement::is_invalid_time(a._element.time()));
    BOOST_TEST(!set.count(CCdsLeaf("/a/")));
    BOOST_TEST(set.count(CCdsLeaf(tk_string("/ab", 2))));
}

BOOST_AUTO_TEST_CASE(connecting) {
    CTempDir dir;
    {
        CScopedEnv env("CDS_STORE", dir.file("missing.db"));
        BOOST_CHECK_THROW(CCdsHandle(), CError);
    }
    CHandleFixture f;
    BOOST_CHECK_NO_THROW(CCdsHandle());
}

BOOST_FIXTURE_TEST_CASE(batches_with_prefixes, CHandleFixture) {
    CCdsHandle cds;
    cds_leaf_set_t leaves;
    leaves.emplace("Port");
    leaves.emplace("/Name"); // "/Dev//Name": the store folds the slashes
    leaves.emplace("Missing");
    cds.get(leaves, "/Dev");
    const CCdsLeaf& port = find(leaves, "Port");
    BOOST_TEST((port._status == API_STATUS_OK && port._element.to_uint() == 502u));
    BOOST_TEST(port._source == 3u);
    BOOST_TEST(find(leaves, "/Name")._element.str() == "unit");
    BOOST_TEST(find(leaves, "Missing")._status == API_STATUS_NOT_FOUND);

    // With no prefix "/Dev/Port" becomes "//Dev/Port".
    cds_leaf_set_t writes;
    writes.emplace("/Dev/Port", CElement::from_string("503"));
    writes.emplace("/Dev/Missing", CElement::from_int(1));
    writes.emplace("/Dev/Units/a", CElement::from_string("abc"));
    for (const CCdsLeaf& leaf : writes)
        leaf._source = 9;
    cds.set(writes, "");
    BOOST_TEST(find(writes, "/Dev/Port")._status == API_STATUS_OK);
    BOOST_TEST(find(writes, "/Dev/Missing")._status == API_STATUS_NOT_FOUND);
    BOOST_TEST(find(writes, "/Dev/Units/a")._status == API_STATUS_BAD_VALUE);
    for (const CCdsLeaf& leaf : writes)
        BOOST_TEST(leaf._source == 0u);
    BOOST_TEST(store.value("/Dev/Port").to_uint() == 503u);
    BOOST_TEST(!CElement::is_invalid_time(store.value("/Dev/Port").time()));

    BOOST_TEST(cds.get("/Dev/Port")->to_uint() == 503u);
    BOOST_TEST(CElement::is_invalid_time(cds.get("/Dev/Port")->time()));
    BOOST_TEST((!cds.get("/Dev/Missing") && !cds.get("/Dev")));

    CElement el;
    BOOST_TEST((cds.get_val("/Dev/Name", el) == 0 && el.str() == "unit"));
    std::vector<CElement> vals = cds.get_vals({"/Dev/Name", "/Dev/Units/c", "/Nope"});
    BOOST_REQUIRE_EQUAL(vals.size(), 3u);
    BOOST_TEST((vals[1].to_int() == 3 && !vals[2].has_value()));
}

BOOST_FIXTURE_TEST_CASE(empty_batches_do_not_reach_the_store, CHandleFixture) {
    CCdsHandle cds;
    // Another connection holds the write lock: a set that reached the store would wait and
    // then throw.
    sqlite3* holder = nullptr;
    BOOST_REQUIRE_EQUAL(sqlite3_open(store.path().c_str(), &holder), SQLITE_OK);
    BOOST_REQUIRE_EQUAL(sqlite3_exec(holder, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr),
                        SQLITE_OK);
    cds_leaf_set_t none;
    BOOST_CHECK_NO_THROW(cds.set(none, "/Dev"));
    BOOST_CHECK_NO_THROW(cds.get(none, "/Dev"));
    BOOST_CHECK_THROW(write(cds, "/Dev/Port", 1), CError);
    sqlite3_exec(holder, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(holder);
}

BOOST_FIXTURE_TEST_CASE(read_only_store, CHandleFixture) {
    // Without the leaf, or with it false, writes are made.
    BOOST_TEST(write(*std::make_unique<CCdsHandle>(), "/Dev/Units/a", 42) == API_STATUS_OK);
    store.define("/ReadOnlyCDS", CElement::TYPE_BOOL, CElement::from_bool(false));
    BOOST_TEST(write(*std::make_unique<CCdsHandle>(), "/Dev/Units/a", 43) == API_STATUS_OK);
    store.define("/ReadOnlyCDS", CElement::TYPE_BOOL, CElement::from_bool(true));
    CCdsHandle cds;
    BOOST_TEST(write(cds, "/Dev/Units/a", 44) == API_STATUS_READ_ONLY);
    BOOST_TEST(store.value("/Dev/Units/a").to_int() == 43);
    // Lasts for the handle's life, whatever the leaf says later.
    store.define("/ReadOnlyCDS", CElement::TYPE_BOOL, CElement::from_bool(false));
    BOOST_TEST(write(cds, "/Dev/Units/a", 45) == API_STATUS_READ_ONLY);
}

BOOST_FIXTURE_TEST_CASE(listing_nodes, CHandleFixture) {
    CCdsHandle cds;
    BOOST_TEST((cds.list_nodes("/Dev/Units") == std::unordered_set<tk_string>{"a", "b", "c"}));
    BOOST_TEST((cds.list_nodes("/Dev") == std::unordered_set<tk_string>{"Name", "Port", "Units"}));
    BOOST_TEST(cds.list_nodes("/Dev/Port").empty());
    BOOST_TEST(cds.list_nodes("/Nope").empty());
}

BOOST_FIXTURE_TEST_CASE(watchdog, CHandleFixture) {
    CCdsHandle cds;
    BOOST_CHECK_THROW(cds.watchdog_ping(), CError); // not registered
    cds.watchdog_register(2000);
    BOOST_CHECK_NO_THROW(cds.watchdog_ping());
    std::vector<toolkit::CWatchdogInfo> entries;
    BOOST_REQUIRE_EQUAL(store.store().watchdogs(entries), 0);
    BOOST_REQUIRE_EQUAL(entries.size(), 1u);
    BOOST_TEST(entries[0].ident == toolkit::CSysLog::_ident);
    BOOST_TEST(entries[0].timeout_ms == 2000u);
}

BOOST_FIXTURE_TEST_CASE(reads_and_writes_by_leaf_id, CHandleFixture) {
    CCdsHandle cds;
    toolkit::CLeafTable table;
    const toolkit::leaf_id_t ids[] = {table.add("/Dev/Port"), table.add("/Dev//Units/a"),
                                      table.add("/Dev/Units/Children")};
    cds.bind(table);
    const toolkit::CLeafValue* out[3] = {};
    BOOST_REQUIRE_EQUAL(cds.read(ids, 3, out, false), 0);
    BOOST_TEST(out[0]->value.to_uint() == 502u);
    BOOST_TEST(out[0]->source == 3u);
    BOOST_TEST(out[1]->value.to_int() == 1);
    BOOST_TEST(out[2]->value.str() == "a;b;c");
    const CElement values[] = {CElement::from_uint(503), CElement::from_string("x")};
    api_status_t statuses[2] = {};
    BOOST_REQUIRE_EQUAL(cds.write(ids, values, 2, statuses), 0);
    BOOST_TEST(statuses[0] == API_STATUS_OK);
    BOOST_TEST(statuses[1] == API_STATUS_BAD_VALUE);
    BOOST_REQUIRE_EQUAL(cds.read(ids, 2, out, true), 0);
    BOOST_TEST(out[0]->value.to_uint() == 503u);
}

BOOST_AUTO_TEST_SUITE_END()
