// Writes by leaf id in parts, and the caches they keep: a connection reads back its own
// writes without asking the store, yet never misses what others committed meanwhile.
#include "support/wait.h"
#include "toolkit/cds_store.h"
#include "toolkit/leaf_table.h"
#include "toolkit/store_fixture.h"

#include <boost/test/unit_test.hpp>

#include <sqlite3.h>

#include <chrono>
#include <thread>

using toolkit::CCds;
using toolkit::CCdsStore;
using toolkit::CElement;
using toolkit::CLeafTable;
using toolkit::CLeafValue;
using toolkit::CWritePart;
using toolkit::leaf_id_t;

namespace {

const int k_leaves = 10;

tk_string leaf_path(int i) {
    return "/W/leaf " + std::to_string(i);
}

std::vector<toolkit::CLeafInfo> int_leaves() {
    std::vector<toolkit::CLeafInfo> leaves;
    for (int i = 0; i < k_leaves; ++i)
        leaves.push_back({leaf_path(i), CElement::TYPE_INT, CElement::from_int(0), 0});
    return leaves;
}

// k_leaves int leaves at 0, their ids, and a second connection `a` bound to them.
struct CWriteFixture : CTestStore {
    CWriteFixture() {
        define(int_leaves());
        for (int i = 0; i < k_leaves; ++i)
            ids.push_back(table.add(leaf_path(i)));
        BOOST_REQUIRE_EQUAL(a_store.open(path()), 0);
        a().bind(table);
    }
    CCds& a() { return a_store.cds(); }
    // Leaf i as cds reads it by id: -1 when not OK, -2 when the read failed (rc says why).
    int64_t read_one(int i, CCds* cds = nullptr, bool wait = true) {
        const CLeafValue* out = nullptr;
        rc = (cds ? *cds : a()).read(&ids[i], 1, &out, wait);
        return rc != 0 ? -2 : out->status == API_STATUS_OK ? out->value.to_int() : -1;
    }
    api_status_t write_one(CCds& cds, int i, const CElement& value) {
        api_status_t status = API_STATUS_NONE;
        rc = cds.write(&ids[i], &value, 1, &status);
        return status;
    }
    int64_t generation() {
        tk_string g;
        sqlite3* db = nullptr;
        sqlite3_open(path().c_str(), &db);
        sqlite3_exec(
            db, "SELECT generation FROM changes",
            [](void* out, int, char** row, char**) {
                return *static_cast<tk_string*>(out) = row[0], 0;
            },
            &g, nullptr);
        sqlite3_close(db);
        return std::stoll(g);
    }

    CLeafTable table;
    std::vector<leaf_id_t> ids;
    CCdsStore a_store;
    int rc = 0;
};

std::vector<api_status_t> statuses(const api_status_t* st, size_t n) {
    return std::vector<api_status_t>(st, st + n);
}
std::vector<api_status_t> statuses(std::initializer_list<api_status_t> st) {
    return st;
}
using boost::test_tools::per_element;

tk_string update_sql(int i, const tk_string& set) {
    return "UPDATE leaves SET " + set + " WHERE path = '" + leaf_path(i) + "'";
}

} // namespace

BOOST_FIXTURE_TEST_SUITE(leaf_writes, CWriteFixture)

BOOST_AUTO_TEST_CASE(parts_share_one_transaction_and_keep_their_own_statuses) {
    const uint32_t bumps = counter_value(path());
    const int64_t gen = generation();
    const leaf_id_t ids0[] = {ids[1], ids[2]};
    const CElement values0[] = {CElement::from_string("11"), CElement::from_string("eleven")};
    const leaf_id_t ids1[] = {table.add("/W"), ids[1], ids[3]};
    const CElement values1[] = {CElement::from_int(1), CElement::from_int(12),
                                CElement::from_int(13)};
    api_status_t st0[2] = {}, st1[3] = {};
    const CWritePart parts[] = {{ids0, values0, 2, st0}, {ids1, values1, 3, st1}};
    BOOST_TEST(a().write(parts, 2, true) == 0);
    // One bad leaf fails alone; "/W" is a node.
    BOOST_TEST(statuses(st0, 2) == statuses({API_STATUS_OK, API_STATUS_BAD_VALUE}), per_element());
    BOOST_TEST(statuses(st1, 3) == statuses({API_STATUS_NOT_FOUND, API_STATUS_OK, API_STATUS_OK}),
               per_element());
    BOOST_TEST(value(leaf_path(1)).to_int() == 12); // the later part's
    BOOST_TEST(value(leaf_path(3)).to_int() == 13);
    BOOST_TEST(read_one(1) == 12);
    BOOST_TEST(counter_value(path()) == bumps + 1);
    // A leaf written twice must not look like a writer that keeps no seq, which would make
    // every reader drop its cache.
    BOOST_TEST(generation() == gen);

    // An id beyond the bound table is a caller's error: nothing of any part is written.
    const leaf_id_t beyond = 1000;
    const CElement v = CElement::from_int(5);
    api_status_t st2 = API_STATUS_NONE;
    const CWritePart bad[] = {{&ids[4], &v, 1, st0}, {&beyond, &v, 1, &st2}};
    BOOST_TEST(a().write(bad, 2, true) == -1);
    BOOST_TEST(st0[0] == API_STATUS_FAILURE);
    BOOST_TEST(st2 == API_STATUS_FAILURE);
    BOOST_TEST(has_text(a().error(), "1000"), a().error());
    BOOST_TEST(value(leaf_path(4)).to_int() == 0);

    // Read-only: every leaf, the node too, is refused as such.
    a().setReadOnly();
    BOOST_TEST(a().is_read_only());
    bool asked = false;
    BOOST_TEST(a().write(parts, 2, true, [&] { return asked = true; }) == 0);
    BOOST_TEST(statuses(st0, 2) == std::vector<api_status_t>(2, API_STATUS_READ_ONLY),
               per_element());
    BOOST_TEST(statuses(st1, 3) == std::vector<api_status_t>(3, API_STATUS_READ_ONLY),
               per_element());
    BOOST_TEST(!asked);
    BOOST_TEST(counter_value(path()) == bumps + 1);
}

BOOST_AUTO_TEST_CASE(a_refused_commit_writes_nothing_and_the_rest_can_follow) {
    BOOST_TEST(read_one(4) == 0);
    const uint32_t bumps = counter_value(path());
    const CElement values[] = {CElement::from_int(40), CElement::from_int(50)};
    api_status_t st[2] = {};
    const CWritePart parts[] = {{&ids[4], &values[0], 1, &st[0]}, {&ids[5], &values[1], 1, &st[1]}};
    int asked = 0;
    BOOST_TEST(a().write(parts, 2, true, [&] { return ++asked, false; }) == CCds::cancelled);
    BOOST_TEST(asked == 1);
    BOOST_TEST(statuses(st, 2) == statuses({API_STATUS_FAILURE, API_STATUS_FAILURE}),
               per_element());
    BOOST_TEST(value(leaf_path(4)).to_int() == 0);
    BOOST_TEST(counter_value(path()) == bumps);
    // Not even its own cache keeps what was rolled back.
    BOOST_TEST(read_one(4) == 0);
    BOOST_TEST(read_one(5) == 0);

    BOOST_TEST(a().write(&parts[1], 1, true, [] { return true; }) == 0);
    BOOST_TEST(st[1] == API_STATUS_OK);
    BOOST_TEST(value(leaf_path(5)).to_int() == 50);
    BOOST_TEST(value(leaf_path(4)).to_int() == 0);

    // Another writer holds the store: nothing is applied and nobody is asked.
    sqlite3* db = nullptr;
    BOOST_REQUIRE_EQUAL(sqlite3_open(path().c_str(), &db), SQLITE_OK);
    BOOST_REQUIRE_EQUAL(sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    BOOST_TEST(a().write(parts, 2, false, [&] { return ++asked, true; }) == CCds::busy);
    BOOST_TEST(asked == 1);
    BOOST_TEST(st[1] == API_STATUS_FAILURE);
    sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(db);
    BOOST_TEST(read_one(5) == 50);
}

BOOST_AUTO_TEST_CASE(a_leaf_changed_behind_the_cache_is_written_the_long_way) {
    BOOST_TEST(read_one(6) == 0);
    // Hand edits that change a type while the sync sees nothing (neither the changes row nor
    // the generation moves): the cached type is wrong, and the write must not trust it.
    raw_sql(path(), update_sql(6, "type = 5, value = 'six', seq = seq + 1000"));
    raw_sql(path(), update_sql(7, "type = 5, value = 'seven', seq = seq + 1000"));
    BOOST_TEST(write_one(a(), 6, CElement::from_string("six and a half")) == API_STATUS_OK);
    BOOST_TEST(value(leaf_path(6)).str() == "six and a half");
    BOOST_TEST(write_one(a(), 7, CElement::from_int(7)) == API_STATUS_OK);
    const CElement stored = value(leaf_path(7));
    BOOST_TEST((stored.type() == CElement::TYPE_STRING && stored.str() == "7"));
    const CLeafValue* out = nullptr;
    BOOST_TEST(
        (a().read(&ids[7], 1, &out, true) == 0 && out->value.type() == CElement::TYPE_STRING));

    // Removed, and defined again with another type, by another connection.
    BOOST_TEST(read_one(8) == 0);
    size_t removed = 0;
    BOOST_REQUIRE_EQUAL(store().remove(leaf_path(8), false, removed), 0);
    BOOST_TEST(write_one(a(), 8, CElement::from_int(8)) == API_STATUS_NOT_FOUND);
    define(leaf_path(8), CElement::TYPE_FLOAT, CElement::from_float(0.5));
    BOOST_TEST(read_one(8) == 0);
    BOOST_TEST(write_one(a(), 8, CElement::from_string("2.5")) == API_STATUS_OK);
    BOOST_TEST(value(leaf_path(8)).to_float() == 2.5);
}

// Every writer but `a` commits at some point around a's write; a's next read must show it
// at once, except for a writer that neither bumps nor commits before a's write.
BOOST_AUTO_TEST_CASE(own_writes_never_hide_what_others_committed) {
    CCdsStore b;
    BOOST_REQUIRE_EQUAL(b.open(path()), 0);
    b.cds().bind(table);
    BOOST_TEST(read_one(0) == 0);

    // Before a's write: a writer that has committed but not bumped yet, one that never bumps,
    // and one that does.
    raw_sql(path(), "BEGIN IMMEDIATE; UPDATE changes SET seq = seq + 1;" +
                        update_sql(1, "value = 11, seq = (SELECT seq FROM changes)") + "; COMMIT");
    BOOST_TEST(write_one(a(), 0, CElement::from_int(1)) == API_STATUS_OK);
    BOOST_TEST(read_one(1) == 11);
    bump_counter(path()); // its late bump
    BOOST_TEST(read_one(1) == 11);
    raw_sql(path(), update_sql(2, "value = 22"));
    BOOST_TEST(write_one(a(), 0, CElement::from_int(2)) == API_STATUS_OK);
    BOOST_TEST(read_one(2) == 22);
    BOOST_TEST(write_one(b.cds(), 3, CElement::from_int(33)) == API_STATUS_OK);
    BOOST_TEST(write_one(a(), 0, CElement::from_int(3)) == API_STATUS_OK);
    BOOST_TEST(read_one(3) == 33);
    BOOST_TEST(read_one(0) == 3);

    // During it: another writer's bump lands between a's load of the counter and a's own
    // bump, and its commit shows only afterwards (it committed after a). a must not take its
    // own bump for the last one.
    const CElement four = CElement::from_int(4);
    api_status_t st = API_STATUS_NONE;
    const CWritePart part = {&ids[0], &four, 1, &st};
    BOOST_TEST(a().write(&part, 1, true, [&] {
        bump_counter(path());
        return true;
    }) == 0);
    raw_sql(path(), "BEGIN IMMEDIATE; UPDATE changes SET seq = seq + 1;" +
                        update_sql(4, "value = 44, seq = (SELECT seq FROM changes)") + "; COMMIT");
    BOOST_TEST(read_one(4) == 44);

    // After it: a writer that bumps is seen at once, one that never bumps within the check.
    BOOST_TEST(write_one(a(), 0, CElement::from_int(5)) == API_STATUS_OK);
    BOOST_TEST(write_one(b.cds(), 5, CElement::from_int(55)) == API_STATUS_OK);
    BOOST_TEST(read_one(5) == 55);
    BOOST_TEST(write_one(a(), 0, CElement::from_int(6)) == API_STATUS_OK);
    raw_sql(path(), update_sql(6, "value = 66"));
    BOOST_TEST(eventually([&] { return read_one(6) == 66; }, std::chrono::seconds(1),
                          std::chrono::milliseconds(5)));
    BOOST_TEST(read_one(0) == 6);
}

// In rollback-journal mode another connection can lock readers out, and a read that asks
// SQLite then answers busy.
BOOST_AUTO_TEST_CASE(a_connection_reads_back_its_own_writes_without_asking_the_store) {
    const tk_string file = dir().file("plain.db");
    tk_string error;
    BOOST_REQUIRE_MESSAGE(CCdsStore::create(file, error) == 0, error);
    raw_sql(file, "PRAGMA journal_mode=DELETE");
    CCdsStore w;
    BOOST_REQUIRE_EQUAL(w.open(file), 0);
    BOOST_REQUIRE_EQUAL(w.define(int_leaves()), 0);
    w.cds().bind(table);
    BOOST_TEST(read_one(3, &w.cds()) == 0);
    sqlite3* db = nullptr;
    BOOST_REQUIRE_EQUAL(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    auto locked_read = [&](int i, bool wait = false) {
        sqlite3_exec(db, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr);
        const int64_t v = read_one(i, &w.cds(), wait);
        sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
        return v;
    };
    // Past the periodic check, so that the write makes it and the reads are not due one.
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    BOOST_TEST(write_one(w.cds(), 1, CElement::from_string("10")) == API_STATUS_OK);
    std::vector<api_status_t> st;
    BOOST_REQUIRE_EQUAL(w.cds().set_leaves({leaf_path(2)}, {CElement::from_int(20)}, {2}, st, ""),
                        0);
    BOOST_TEST(locked_read(1) == 10);
    BOOST_TEST(locked_read(2) == 20);
    BOOST_TEST(locked_read(3) == 0);

    // A hand edit before a write drops the cache (the generation moved): reads ask again,
    // and under the lock answer busy at once, naming the lock. A read that waits gives up
    // too, and busy is no failed store.
    raw_sql(file, update_sql(3, "value = 30"));
    BOOST_TEST(write_one(w.cds(), 4, CElement::from_int(40)) == API_STATUS_OK);
    const auto start = std::chrono::steady_clock::now();
    BOOST_TEST(locked_read(3) == -2);
    BOOST_TEST((std::chrono::steady_clock::now() - start < std::chrono::milliseconds(100)));
    BOOST_TEST(rc == CCds::busy);
    BOOST_TEST(has_text(w.cds().error(), "locked"), w.cds().error());
    BOOST_TEST(locked_read(3, true) == -2);
    BOOST_TEST(rc == CCds::busy);
    BOOST_TEST(read_one(3, &w.cds()) == 30);
    sqlite3_close(db);
}

BOOST_AUTO_TEST_CASE(wal_frames_grow_until_a_checkpoint_that_never_waits) {
    a().set_auto_checkpoint(false);
    BOOST_TEST(a().wal_frames() == 0);
    const int k_writes = 400; // past SQLite's 1000 frames
    for (int i = 0; i < k_writes; ++i)
        BOOST_REQUIRE_EQUAL(write_one(a(), i % k_leaves, CElement::from_int(i)), API_STATUS_OK);
    BOOST_TEST(a().wal_frames() > 1000);

    // A reader in a transaction keeps the frames it may need.
    sqlite3* db = nullptr;
    BOOST_REQUIRE_EQUAL(sqlite3_open(path().c_str(), &db), SQLITE_OK);
    BOOST_REQUIRE_EQUAL(
        sqlite3_exec(db, "BEGIN; SELECT count(*) FROM leaves", nullptr, nullptr, nullptr),
        SQLITE_OK);
    BOOST_REQUIRE_EQUAL(write_one(a(), 0, CElement::from_int(1)), API_STATUS_OK);
    int left = -1;
    BOOST_TEST(a().checkpoint(left) == 0);
    BOOST_TEST(left > 0);
    BOOST_TEST(a().wal_frames() == left);
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(db);
    BOOST_TEST(a().checkpoint(left) == 0);
    BOOST_TEST(left == 0);
    BOOST_TEST(a().wal_frames() == 0);
    // The next commit starts the WAL over.
    BOOST_REQUIRE_EQUAL(write_one(a(), 0, CElement::from_int(2)), API_STATUS_OK);
    BOOST_TEST(a().wal_frames() > 0);
    BOOST_TEST(a().wal_frames() < 10);
    // A restarting checkpoint empties the file itself.
    BOOST_TEST(a().checkpoint(left, true) == 0);
    BOOST_TEST(left == 0);
    BOOST_TEST(read_text(path() + "-wal").empty());

    a().set_auto_checkpoint(true);
    for (int i = 0; i < k_writes; ++i) {
        BOOST_REQUIRE_EQUAL(write_one(a(), i % k_leaves, CElement::from_int(i)), API_STATUS_OK);
        BOOST_REQUIRE_LT(a().wal_frames(), 1000);
    }
}

BOOST_AUTO_TEST_SUITE_END()
