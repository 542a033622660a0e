// Reads and writes by leaf id: the id cache must never serve a value older than what other
// connections and processes committed, whichever way they wrote.
#include "support/wait.h"
#include "toolkit/cds_store.h"
#include "toolkit/leaf_table.h"
#include "toolkit/store_fixture.h"

#include <boost/test/unit_test.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>

using toolkit::CCds;
using toolkit::CCdsStore;
using toolkit::CElement;
using toolkit::CLeafTable;
using toolkit::CLeafValue;
using toolkit::leaf_id_t;

namespace {

const int k_leaves = 300;

tk_string leaf_path(int i) {
    return "/Meter/leaf " + std::to_string(i);
}

int wait_child(pid_t pid) {
    int status = 0;
    BOOST_REQUIRE_EQUAL(::waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// k_leaves int leaves at 0 (the last one only in the table, not in the store), a table of
// them and a reader connection bound to it.
struct CIdFixture : CTestStore {
    CIdFixture() {
        std::vector<toolkit::CLeafInfo> leaves;
        for (int i = 0; i + 1 < k_leaves; ++i)
            leaves.push_back({leaf_path(i), CElement::TYPE_INT, CElement::from_int(0), 0});
        define(leaves);
        for (int i = 0; i < k_leaves; ++i)
            ids.push_back(table.add(leaf_path(i)));
        open(reader);
    }
    void open(CCdsStore& store) {
        BOOST_REQUIRE_MESSAGE(store.open(path()) == 0, store.error());
        store.cds().bind(table);
    }
    // The values of the first n ids, -1 for a leaf not read; empty when the read failed.
    std::vector<int64_t> read(CCds& cds, size_t n = k_leaves, bool wait = true) {
        std::vector<const CLeafValue*> out(n);
        rc = cds.read(ids.data(), n, out.data(), wait);
        std::vector<int64_t> values;
        if (rc == 0)
            for (const CLeafValue* v : out)
                values.push_back(v->status == API_STATUS_OK ? v->value.to_int() : -1);
        return values;
    }
    int64_t read_one(int i) {
        const std::vector<int64_t> v = read(reader.cds());
        return v.empty() ? -2 : v[i];
    }
    void set(CCds& cds, int i, int64_t value) {
        std::vector<api_status_t> st;
        BOOST_REQUIRE_EQUAL(
            cds.set_leaves({leaf_path(i)}, {CElement::from_int(value)}, {2}, st, "test"), 0);
        BOOST_REQUIRE_EQUAL(st[0], API_STATUS_OK);
    }
    // Whether the reader sees leaf i at value within limit.
    bool seen_within(int i, int64_t value,
                     std::chrono::milliseconds limit = std::chrono::seconds(1)) {
        return eventually([&] { return read_one(i) == value; }, limit,
                          std::chrono::milliseconds(5));
    }

    CLeafTable table;
    std::vector<leaf_id_t> ids;
    CCdsStore reader;
    int rc = 0;
};

} // namespace

BOOST_AUTO_TEST_SUITE(leaf_ids)

// The table's index is rebuilt each time it doubles: every id must stay where it was, and
// every spelling of a path find it.
BOOST_AUTO_TEST_CASE(the_table_keeps_its_ids_as_it_grows) {
    CLeafTable table;
    const int n = 5000;
    for (int i = 0; i < n; ++i)
        BOOST_REQUIRE_EQUAL(table.add(leaf_path(i)), leaf_id_t(i));
    BOOST_TEST(table.size() == size_t(n));
    for (int i = 0; i < n; i += 7) {
        const tk_string path = leaf_path(i);
        leaf_id_t id = 0;
        BOOST_REQUIRE(table.find("/" + path + "/", id));
        BOOST_TEST(id == leaf_id_t(i));
        BOOST_TEST(table.path(id) == path);
        BOOST_TEST(table.add(path.substr(1)) == id);
    }
    leaf_id_t id = 0;
    BOOST_TEST(!table.find(leaf_path(n), id));
    BOOST_TEST(table.size() == size_t(n));
}

// Leaves the table learns after a connection bound it are read by id like the first ones.
BOOST_FIXTURE_TEST_CASE(ids_added_after_binding_are_read, CIdFixture) {
    BOOST_TEST(read_one(5) == 0);
    const int last = k_leaves + 4000;
    define({{leaf_path(last), CElement::TYPE_INT, CElement::from_int(7), 0}});
    for (int i = k_leaves; i <= last; ++i)
        ids.push_back(table.add(leaf_path(i)));
    const leaf_id_t id = ids.back();
    const CLeafValue* out = nullptr;
    BOOST_REQUIRE_EQUAL(reader.cds().read(&id, 1, &out, true), 0);
    BOOST_TEST((out->status == API_STATUS_OK && out->value.to_int() == 7));
}

BOOST_FIXTURE_TEST_CASE(reads_see_every_writer_at_once, CIdFixture) {
    BOOST_TEST(read_one(5) == 0);
    BOOST_TEST(read_one(k_leaves - 1) == -1); // in the table, not in the store
    BOOST_TEST(rc == 0);

    // Another connection of this process, by path and by id.
    CCdsStore other;
    open(other);
    set(other.cds(), 5, 50);
    BOOST_TEST(read_one(5) == 50);
    const CElement value = CElement::from_int(51);
    api_status_t status = 0;
    BOOST_TEST(other.cds().write(&ids[6], &value, 1, &status) == 0);
    BOOST_TEST(status == API_STATUS_OK);
    BOOST_TEST(read_one(6) == 51);

    // Another process.
    const CRunResult r = run_cdsctl(dir(), {"set", leaf_path(7), "70"});
    BOOST_REQUIRE_MESSAGE(r.status == 0, r.err);
    BOOST_TEST(read_one(7) == 70);
    BOOST_TEST(read_one(5) == 50);

    // A burst past what a reader follows leaf by leaf: the whole cache goes.
    std::vector<tk_string> paths;
    for (int i = 0; i + 1 < k_leaves; ++i)
        paths.push_back(leaf_path(i));
    std::vector<api_status_t> st;
    BOOST_REQUIRE_EQUAL(
        other.cds().set_leaves(paths, std::vector<CElement>(paths.size(), CElement::from_int(9)),
                               std::vector<kvr_tribool_t>(paths.size(), 2), st, "test"),
        0);
    const std::vector<int64_t> all = read(reader.cds(), k_leaves - 1);
    BOOST_TEST(all == std::vector<int64_t>(k_leaves - 1, 9), boost::test_tools::per_element());
}

// A write by id is stamped as one by path: now, unless the element has a stamp, which is kept
// to the microsecond; its own write is read back. (Statuses and read-only connections: in
// the write tests.) A read of an id the bound table lacks is refused with a reason.
BOOST_FIXTURE_TEST_CASE(id_writes_stamp_and_unknown_ids_are_refused, CIdFixture) {
    api_status_t st = API_STATUS_NONE;
    const CElement plain = CElement::from_int(12);
    BOOST_TEST(reader.cds().write(&ids[1], &plain, 1, &st) == 0);
    BOOST_TEST(read_one(1) == 12);
    BOOST_TEST(std::abs(value(leaf_path(1)).time().tv_sec - ::time(nullptr)) < 60);
    const CElement stamped = CElement::from_int(4, timeval{1000, 5});
    BOOST_TEST(reader.cds().write(&ids[1], &stamped, 1, &st) == 0);
    BOOST_TEST(value(leaf_path(1)).time().tv_sec == 1000);
    BOOST_TEST(value(leaf_path(1)).time().tv_usec == 5);
    BOOST_TEST(read_one(1) == 4);

    const leaf_id_t beyond = 100000;
    const CLeafValue* out = nullptr;
    BOOST_TEST(reader.cds().read(&beyond, 1, &out, true) != 0);
    BOOST_TEST(has_text(reader.cds().error(), "100000"), reader.cds().error());
}

BOOST_AUTO_TEST_CASE(writers_bump_the_big_endian_counter_from_several_processes) {
    CTempDir dir;
    const tk_string path = dir.file("store.db");
    tk_string error;
    BOOST_REQUIRE_MESSAGE(CCdsStore::create(path, error) == 0, error);
    CLeafTable table;
    const leaf_id_t a = table.add("/a"), b = table.add("/b");
    uint32_t before = 0;
    {
        CCdsStore s;
        BOOST_REQUIRE_EQUAL(s.open(path), 0);
        before = counter_value(path);
        const CElement zero = CElement::from_int(0);
        BOOST_REQUIRE_EQUAL(s.define({{"/a", CElement::TYPE_INT, zero},
                                      {"/b", CElement::TYPE_INT, zero},
                                      {"/c", CElement::TYPE_INT, zero}}),
                            0);
        size_t removed = 0;
        BOOST_REQUIRE_EQUAL(s.remove("/c", false, removed), 0);
        std::vector<api_status_t> st;
        BOOST_REQUIRE_EQUAL(s.cds().set_leaves({"/a"}, {zero}, {2}, st, "test"), 0);
        s.cds().bind(table);
        api_status_t one = 0;
        BOOST_REQUIRE_EQUAL(s.cds().write(&b, &zero, 1, &one), 0);
        BOOST_TEST(counter_value(path) == before + 4);
    } // closed: no connection crosses fork()

    // Bumps from two processes at once are all counted, whether they write by path or id.
    const int k_writes = 100;
    pid_t pids[2];
    for (int c = 0; c < 2; ++c) {
        pids[c] = ::fork();
        BOOST_REQUIRE(pids[c] >= 0);
        if (pids[c] == 0) {
            CCdsStore child;
            if (child.open(path) != 0)
                ::_exit(1);
            child.cds().bind(table);
            std::vector<api_status_t> st(1);
            for (int i = 0; i < k_writes; ++i) {
                const CElement v = CElement::from_int(i);
                if ((c == 0 ? child.cds().set_leaves({"/a"}, {v}, {2}, st, "child")
                            : child.cds().write(&b, &v, 1, st.data())) != 0 ||
                    st[0] != API_STATUS_OK)
                    ::_exit(2);
            }
            ::_exit(0);
        }
    }
    BOOST_TEST(wait_child(pids[0]) == 0);
    BOOST_TEST(wait_child(pids[1]) == 0);
    BOOST_TEST(counter_value(path) == before + 4 + 2 * k_writes);
    CCdsStore reader;
    BOOST_REQUIRE_EQUAL(reader.open(path), 0);
    reader.cds().bind(table);
    const leaf_id_t both[] = {a, b};
    const CLeafValue* out[2] = {};
    BOOST_REQUIRE_EQUAL(reader.cds().read(both, 2, out, true), 0);
    BOOST_TEST(out[0]->value.to_int() == k_writes - 1);
    BOOST_TEST(out[1]->value.to_int() == k_writes - 1);
}

// The fast path does not ask SQLite, so a commit without a bump (a writer killed in between,
// or not using this library) stays unseen until the periodic check, and no longer.
BOOST_FIXTURE_TEST_CASE(a_commit_without_a_bump_is_seen_within_the_periodic_check, CIdFixture) {
    BOOST_TEST(read_one(3) == 0);
    raw_sql(path(), "BEGIN IMMEDIATE; UPDATE changes SET seq = seq + 1;"
                    "UPDATE leaves SET value = 33, seq = (SELECT seq FROM changes) "
                    "WHERE path = '" +
                        leaf_path(3) + "'; COMMIT;");
    BOOST_TEST(read_one(3) == 0);
    BOOST_TEST(seen_within(3, 33, std::chrono::milliseconds(700)));
    // As the sqlite3 shell would write it (the generation changes).
    raw_sql(path(), "UPDATE leaves SET value = 34 WHERE path = '" + leaf_path(3) + "'");
    BOOST_TEST(seen_within(3, 34));
}

BOOST_FIXTURE_TEST_CASE(a_counter_file_removed_under_a_reader_is_mapped_again, CIdFixture) {
    BOOST_TEST(read_one(4) == 0);
    BOOST_REQUIRE_EQUAL(::unlink((path() + "-changes").c_str()), 0);
    // A new process creates a new counter; the reader still maps the removed one.
    CCdsStore other;
    open(other);
    set(other.cds(), 4, 40);
    BOOST_TEST(seen_within(4, 40));
    // Mapped again: the next write is seen at once.
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    BOOST_TEST(read_one(4) == 40);
    set(other.cds(), 4, 41);
    BOOST_TEST(read_one(4) == 41);
}

// A store replaced by rename while one connection only is open, as it must be done.
BOOST_AUTO_TEST_CASE(a_store_renamed_over_or_removed_is_followed) {
    CTempDir dir;
    const tk_string path = dir.file("store.db");
    auto make = [](const tk_string& file, int64_t value) {
        tk_string error;
        BOOST_REQUIRE_MESSAGE(CCdsStore::create(file, error) == 0, error);
        CCdsStore s;
        BOOST_REQUIRE_EQUAL(s.open(file), 0);
        BOOST_REQUIRE_EQUAL(s.define({{"/a", CElement::TYPE_INT, CElement::from_int(value)}}), 0);
    };
    make(path, 1);
    CLeafTable table;
    const leaf_id_t id = table.add("/a");
    CCdsStore reader;
    BOOST_REQUIRE_EQUAL(reader.open(path), 0);
    reader.cds().bind(table);
    auto read = [&]() {
        const CLeafValue* out = nullptr;
        return reader.cds().read(&id, 1, &out, true) == 0 ? out->value.to_int() : int64_t(-1);
    };
    BOOST_TEST(read() == 1);

    make(dir.file("next.db"), 10);
    BOOST_REQUIRE_EQUAL(std::rename(dir.file("next.db").c_str(), path.c_str()), 0);
    // Seen at the next periodic check.
    BOOST_TEST(eventually([&] { return read() == 10; }, std::chrono::seconds(1)));
    BOOST_TEST(has_text(reader.cds().take_notice(), "reopened"));
    // It follows writers of the new file at once again.
    const CRunResult r = run_cdsctl(dir, {"--store", path, "set", "/a", "11"});
    BOOST_REQUIRE_MESSAGE(r.status == 0, r.err);
    BOOST_TEST(read() == 11);

    BOOST_REQUIRE_EQUAL(::unlink(path.c_str()), 0);
    BOOST_TEST(eventually([&] { return read() == -1; }, std::chrono::seconds(1)));
    BOOST_TEST(has_text(reader.cds().error(), path), reader.cds().error());
    BOOST_TEST(has_text(reader.cds().take_notice(), "is gone"));
    make(path, 12);
    BOOST_TEST(read() == 12);
}

BOOST_FIXTURE_TEST_CASE(without_a_counter_file_every_read_asks_the_store, CIdFixture) {
    const tk_string counter = path() + "-changes";
    BOOST_REQUIRE_EQUAL(::unlink(counter.c_str()), 0);
    // Permissions do not stop root: then a folder in the way stops the counter instead.
    if (::geteuid() == 0)
        BOOST_REQUIRE_EQUAL(::mkdir(counter.c_str(), 0755), 0);
    BOOST_REQUIRE_EQUAL(::chmod(dir().path().c_str(), 0555), 0);
    CCdsStore plain;
    open(plain);
    BOOST_REQUIRE_EQUAL(::chmod(dir().path().c_str(), 0755), 0);
    const tk_string notice = plain.cds().take_notice();
    BOOST_TEST(has_text(notice, counter), notice);
    BOOST_TEST(read(plain.cds(), 10) == std::vector<int64_t>(10, 0),
               boost::test_tools::per_element());
    set(store().cds(), 2, 20);
    BOOST_TEST(read(plain.cds(), 10)[2] == 20);
    raw_sql(path(), "UPDATE leaves SET value = 21 WHERE path = '" + leaf_path(2) + "'");
    BOOST_TEST(read(plain.cds(), 10)[2] == 21);
    // Said once, not at every periodic check.
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    BOOST_TEST(read(plain.cds(), 10).size() == 10u);
    BOOST_TEST(plain.cds().take_notice().empty());
}

BOOST_AUTO_TEST_SUITE_END()
