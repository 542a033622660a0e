// Several processes on one store file at once, and processes killed while writing. The
// parent never holds a connection across fork(): SQLite connections must not be inherited.
#include "test/global_test_data.h"
#include "toolkit/cds_store.h"
#include "toolkit/store_fixture.h"

#include <boost/test/unit_test.hpp>

#include <sqlite3.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <sstream>
#include <thread>

using toolkit::CCds;
using toolkit::CElement;

namespace {

const int k_leaves = 200;

tk_string leaf_path(int i) {
    return "/P/leaf " + std::to_string(i);
}

std::vector<tk_string> all_paths(int n) {
    std::vector<tk_string> paths;
    for (int i = 0; i < n; ++i)
        paths.push_back(leaf_path(i));
    return paths;
}

// Runs body in a child process; its return value is the exit status.
pid_t fork_child(const std::function<int()>& body) {
    const pid_t pid = ::fork();
    BOOST_REQUIRE(pid >= 0);
    if (pid == 0) {
        int rc = 99;
        try {
            rc = body();
        } catch (...) {
        }
        ::_exit(rc);
    }
    return pid;
}

int wait_child(pid_t pid) {
    int status = 0;
    BOOST_REQUIRE_EQUAL(::waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// A store of n int leaves, all 0, built by cdsctl from JSON; no connection stays open.
tk_string make_store(const CTempDir& dir, int n) {
    std::ostringstream json;
    json << "{";
    for (int i = 0; i < n; ++i)
        json << (i ? ",\n" : "") << "\"" << leaf_path(i) << "\": 0";
    json << "}";
    write_text(dir.file("tree.json"), json.str());
    const tk_string store = dir.file("store.db");
    BOOST_REQUIRE_EQUAL(run_cdsctl(dir, {"--store", store, "init"}).status, 0);
    const CRunResult r = run_cdsctl(dir, {"--store", store, "load", dir.file("tree.json")});
    BOOST_REQUIRE_MESSAGE(r.status == 0, r.err);
    return store;
}

// Reads all n leaves in one batch; true when every one holds the same value.
bool read_uniform(CCds& cds, int n, int64_t& value) {
    std::vector<api_status_t> st;
    std::vector<CElement> values;
    std::vector<element_property_t> sources;
    if (cds.get_leaves(all_paths(n), st, values, sources) != 0)
        return false;
    value = values[0].to_int();
    for (int i = 0; i < n; ++i)
        if (st[i] != API_STATUS_OK || values[i].to_int() != value)
            return false;
    return true;
}

// Writes the value k to all n leaves in one batch.
int write_all(CCds& cds, int n, int64_t k) {
    std::vector<api_status_t> st;
    return cds.set_leaves(all_paths(n), std::vector<CElement>(n, CElement::from_int(k)),
                          std::vector<kvr_tribool_t>(n, 2), st, "writer");
}

int64_t elapsed_ms(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start)
        .count();
}

bool integrity(const tk_string& store) {
    sqlite3* db = nullptr;
    sqlite3_open(store.c_str(), &db);
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &stmt, nullptr);
    const bool ok = sqlite3_step(stmt) == SQLITE_ROW &&
                    tk_string(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0))) == "ok";
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return ok;
}

} // namespace

BOOST_AUTO_TEST_SUITE(cds_processes)

BOOST_AUTO_TEST_CASE(writer_and_reader_at_once) {
    CTempDir dir;
    // The last leaf is the parent's; the others the child's.
    const tk_string store = make_store(dir, k_leaves + 1);
    CScopedEnv env("CDS_STORE", store);
    const int rounds = 300;
    const tk_string parent_leaf = leaf_path(k_leaves);

    // The child writes all its leaves in each batch and checks what the parent writes.
    const pid_t writer = fork_child([&] {
        CCds cds;
        cds.set_handle(kvr_init(0));
        if (!cds.is_initialized())
            return 10;
        std::vector<api_status_t> st;
        std::vector<CElement> v;
        std::vector<element_property_t> src;
        int64_t parent = 0;
        for (int k = 1; k <= rounds; ++k) {
            if (write_all(cds, k_leaves, k) != 0)
                return 11;
            if (cds.get_leaves({leaf_path(0), parent_leaf}, st, v, src) != 0)
                return 12;
            if (v[0].to_int() != k)
                return 13; // its own write must show at once
            if (v[1].to_int() < parent)
                return 14;
            parent = v[1].to_int();
        }
        return 0;
    });

    CCds cds;
    cds.set_handle(kvr_init(0));
    BOOST_REQUIRE(cds.is_initialized());
    int64_t last = 0, value = 0;
    int reads = 0, changes = 0;
    for (;;) {
        int status = 0;
        const bool done = ::waitpid(writer, &status, WNOHANG) == writer;
        BOOST_REQUIRE_MESSAGE(read_uniform(cds, k_leaves, value), "a batch mixed two transactions");
        BOOST_REQUIRE_MESSAGE(value >= last, "went back from " << last << " to " << value);
        changes += value != last;
        last = value;
        ++reads;
        std::vector<api_status_t> st;
        BOOST_REQUIRE_EQUAL(cds.set_leaves({parent_leaf}, {CElement::from_int(reads)}, {2}, st, ""),
                            0);
        if (done) {
            BOOST_TEST(WIFEXITED(status));
            BOOST_TEST(WEXITSTATUS(status) == 0);
            break;
        }
    }
    // Nothing stale once the writer has finished.
    BOOST_TEST(last == rounds);
    BOOST_TEST_MESSAGE("reads " << reads << ", changes seen " << changes);
    // And cdsctl, a third process, sees the same.
    const CRunResult r = run_cdsctl(dir, {"--store", store, "get", "/P/leaf 7"});
    BOOST_TEST(r.status == 0);
    BOOST_TEST(r.out == std::to_string(rounds) + "\n");
}

BOOST_AUTO_TEST_CASE(writer_killed_inside_its_transaction) {
    CTempDir dir;
    const tk_string store = make_store(dir, 20);
    int pipefd[2];
    BOOST_REQUIRE_EQUAL(::pipe(pipefd), 0);
    // The child opens a transaction, changes everything, says so, and waits to be killed.
    const pid_t child = fork_child([&] {
        sqlite3* db = nullptr;
        if (sqlite3_open(store.c_str(), &db) != SQLITE_OK ||
            sqlite3_exec(db, "BEGIN IMMEDIATE; UPDATE leaves SET value = 999", nullptr, nullptr,
                         nullptr) != SQLITE_OK)
            return 1;
        if (::write(pipefd[1], "x", 1) != 1)
            return 2;
        ::pause();
        return 3;
    });
    char c;
    BOOST_REQUIRE_EQUAL(::read(pipefd[0], &c, 1), 1);
    ::close(pipefd[0]);
    ::close(pipefd[1]);
    ::kill(child, SIGKILL);
    BOOST_TEST(wait_child(child) == -SIGKILL);

    CScopedEnv env("CDS_STORE", store);
    CCds cds;
    cds.set_handle(kvr_init(0));
    BOOST_REQUIRE(cds.is_initialized());
    int64_t value = -1;
    BOOST_TEST(read_uniform(cds, 20, value));
    BOOST_TEST(value == 0);
    // Its lock died with it: writing works at once.
    const auto start = std::chrono::steady_clock::now();
    BOOST_TEST(write_all(cds, 20, 5) == 0);
    BOOST_TEST(elapsed_ms(start) < 500);
    BOOST_TEST(integrity(store));
}

BOOST_AUTO_TEST_CASE(writer_killed_at_random_times) {
    CTempDir dir;
    const int n = 3000;
    const tk_string store = make_store(dir, n);
    CScopedEnv env("CDS_STORE", store);
    CRandom& rnd = test_data().random();
    for (int round = 0; round < 4; ++round) {
        int pipefd[2];
        BOOST_REQUIRE_EQUAL(::pipe(pipefd), 0);
        const pid_t child = fork_child([&] {
            CCds cds;
            cds.set_handle(kvr_init(0));
            if (!cds.is_initialized() || ::write(pipefd[1], "x", 1) != 1)
                return 1;
            for (int64_t k = 1;; ++k)
                if (write_all(cds, n, round * 100000 + k) != 0)
                    return 2;
        });
        char c;
        BOOST_REQUIRE_EQUAL(::read(pipefd[0], &c, 1), 1);
        ::close(pipefd[0]);
        ::close(pipefd[1]);
        std::this_thread::sleep_for(std::chrono::microseconds(rnd.uniform(0u, 150000u)));
        ::kill(child, SIGKILL);
        BOOST_TEST(wait_child(child) == -SIGKILL);

        CCds cds;
        cds.set_handle(kvr_init(0));
        BOOST_REQUIRE(cds.is_initialized());
        int64_t value = -1;
        BOOST_TEST(read_uniform(cds, n, value), "round " << round);
        BOOST_TEST_MESSAGE("round " << round << ": killed after value " << value);
        BOOST_TEST(write_all(cds, n, -1) == 0);
    }
    BOOST_TEST(integrity(store));
}

BOOST_AUTO_TEST_CASE(busy_writer_fails_in_bounded_time) {
    CTempDir dir;
    const tk_string store = make_store(dir, 5);
    CScopedEnv env("CDS_STORE", store);
    // Another connection holds the write lock.
    sqlite3* holder = nullptr;
    BOOST_REQUIRE_EQUAL(sqlite3_open(store.c_str(), &holder), SQLITE_OK);
    BOOST_REQUIRE_EQUAL(sqlite3_exec(holder, "BEGIN IMMEDIATE; UPDATE leaves SET value = 7",
                                     nullptr, nullptr, nullptr),
                        SQLITE_OK);
    CCds cds;
    cds.set_handle(kvr_init(0));
    BOOST_REQUIRE(cds.is_initialized());
    // Readers are not blocked, and see only what was committed.
    int64_t value = -1;
    BOOST_TEST(read_uniform(cds, 5, value));
    BOOST_TEST(value == 0);
    const auto start = std::chrono::steady_clock::now();
    BOOST_TEST(write_all(cds, 5, 1) != 0);
    const int64_t waited = elapsed_ms(start);
    BOOST_TEST(waited >= 1000);
    BOOST_TEST(waited < 10000);
    BOOST_TEST(!cds.error().empty());
    sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(holder);
    BOOST_TEST(read_uniform(cds, 5, value));
    BOOST_TEST(value == 7);
    BOOST_TEST(write_all(cds, 5, 1) == 0);
}

BOOST_AUTO_TEST_CASE(cdsctl_load_killed) {
    CTempDir dir;
    const tk_string store = make_store(dir, 10);
    std::ostringstream json;
    json << "{\"Big\": {";
    const int n = 40000;
    for (int i = 0; i < n; ++i)
        json << (i ? "," : "") << "\"n" << i << "\": {\"$type\": \"uint\", \"$value\": " << i
             << "}";
    json << "}}";
    write_text(dir.file("big.json"), json.str());
    CRandom& rnd = test_data().random();
    size_t before = 10;
    for (int round = 0; round < 4; ++round) {
        const pid_t child = fork_child([&] {
            const tk_string exe = MB_BINARY_DIR "/cdsctl";
            const tk_string big = dir.file("big.json");
            const int null = ::open("/dev/null", O_WRONLY);
            ::dup2(null, 1);
            ::execl(exe.c_str(), exe.c_str(), "--store", store.c_str(), "load", "--replace",
                    big.c_str(), static_cast<char*>(nullptr));
            return 127;
        });
        std::this_thread::sleep_for(std::chrono::microseconds(rnd.uniform(0u, 400000u)));
        ::kill(child, SIGKILL);
        wait_child(child);
        toolkit::CCdsStore s;
        BOOST_REQUIRE_EQUAL(s.open(store), 0);
        std::vector<toolkit::CLeafInfo> leaves;
        BOOST_REQUIRE_EQUAL(s.list("/", leaves), 0);
        // Either the tree as it was or the whole new one.
        BOOST_TEST((leaves.size() == before || leaves.size() == size_t(n)), leaves.size());
        before = leaves.size();
    }
    BOOST_TEST(integrity(store));
}

BOOST_AUTO_TEST_SUITE_END()
