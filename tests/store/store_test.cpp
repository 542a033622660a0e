#include "cds/cds_handle.h"
#include "io/watchdog_timer.h"
#include "store/store_access.h"
#include "store/store_worker.h"
#include "support/loop_fixture.h"
#include "support/stderr_capture.h"
#include "support/wait.h"
#include "toolkit/store_fixture.h"

#include <boost/test/unit_test.hpp>

#include <sqlite3.h>
#include <unistd.h>

#include <condition_variable>
#include <set>

namespace {

using toolkit::CElement;

// A latch the worker can be held on while the test fills its queue.
struct CGate {
    void open() {
        std::lock_guard<std::mutex> lock(mutex);
        is_open = true;
        cond.notify_all();
    }
    void wait() {
        std::unique_lock<std::mutex> lock(mutex);
        entered = true;
        cond.notify_all();
        cond.wait(lock, [this] { return is_open; });
    }
    // Blocks until the worker waits at the gate.
    void wait_entered() {
        std::unique_lock<std::mutex> lock(mutex);
        cond.wait(lock, [this] { return entered; });
    }
    std::mutex mutex;
    std::condition_variable cond;
    bool is_open = false;
    bool entered = false;
};

// A store with three leaves, a worker on a connection of its own and the I/O thread's access
// on another, both bound to the leaves, and a loop for their completions.
struct CStoreFixture : CLoopFixture {
    // watchdog_ms: registers the worker's connection with the store's watchdog first.
    explicit CStoreFixture(std::function<void(CStoreWorker::options_t&)> tweak = {},
                           unsigned watchdog_ms = 0) {
        store.define("/Dev/A", CElement::TYPE_INT, CElement::from_int(5));
        store.define("/Dev/B", CElement::TYPE_STRING, CElement::from_string("x"));
        for (const char* path : {"/Dev/A", "/Dev/B", "/Dev/C"})
            ids.push_back(table.add(path));
        auto cds = std::make_unique<CCdsHandle>();
        cds->bind(table);
        cds->set_auto_checkpoint(false);
        if (watchdog_ms != 0)
            cds->watchdog_register(watchdog_ms);
        reader.bind(table);
        reader.set_auto_checkpoint(false);
        CStoreWorker::options_t options;
        options.fatal = [this](const std::string& why) {
            std::lock_guard<std::mutex> lock(mutex);
            fatal = why;
        };
        if (tweak)
            tweak(options);
        worker.reset(new CStoreWorker(std::move(cds), manager.service(), options));
        access.reset(new CStoreAccess(reader, *worker, manager.service()));
    }
    ~CStoreFixture() { worker->stop(); }

    // Runs the loop until done, asked on the loop's thread, holds; false if it never does.
    bool loop_until(const std::function<bool()>& done) {
        bool held = false;
        return run_with([&] { held = eventually([&] { return in_loop(done); }); }) && held;
    }

    // A write job of value to leaf i, whose outcome goes into outcomes in the order they come.
    std::shared_ptr<CStoreJob> write_job(size_t i, const CElement& value) {
        auto job = std::make_shared<CStoreJob>();
        job->reset(CStoreJob::WRITE);
        job->ids = {ids[i]};
        job->values = {value};
        CStoreJob* raw = job.get();
        job->done = [this, raw, i] { outcomes.emplace_back(i, raw->outcome); };
        return job;
    }

    CTestStore store;
    toolkit::CLeafTable table;
    std::vector<toolkit::leaf_id_t> ids; // A, B, C (C has no leaf)
    CCdsHandle reader;
    std::unique_ptr<CStoreWorker> worker;
    std::unique_ptr<CStoreAccess> access;
    std::vector<std::pair<size_t, CStoreJob::outcome_t>> outcomes;
    std::mutex mutex;
    std::string fatal;
};

// Holds the store's write lock from another connection, as a device process may.
class CStoreHolder {
public:
    explicit CStoreHolder(const tk_string& path) {
        BOOST_REQUIRE(sqlite3_open(path.c_str(), &_db) == SQLITE_OK);
        BOOST_REQUIRE(sqlite3_exec(_db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK);
    }
    ~CStoreHolder() { release(); }
    void release() {
        if (_db == nullptr)
            return;
        sqlite3_exec(_db, "ROLLBACK", nullptr, nullptr, nullptr);
        sqlite3_close(_db);
        _db = nullptr;
    }

private:
    sqlite3* _db = nullptr;
};

} // namespace

BOOST_AUTO_TEST_SUITE(store)

// Tasks run in order, urgent ones first; one that throws fails alone and the worker goes on
// to serve the next task and a request's read.
BOOST_AUTO_TEST_CASE(tasks_in_order_and_failures_go_on) {
    CStoreFixture f;
    CGate gate;
    std::vector<std::string> ran;         // on the worker, in order
    std::vector<std::string> completions; // on the loop, in order
    const auto task = [&](const std::string& name, bool throws = false) {
        return [&ran, name, throws](CCdsHandle&) {
            ran.push_back(name);
            if (throws)
                throw std::runtime_error("boom");
            return true;
        };
    };
    const auto told = [&](const std::string& name) {
        return [&completions, name](bool ok) { completions.push_back(name + (ok ? "" : "!")); };
    };
    f.worker->run(
        [&](CCdsHandle&) {
            gate.wait();
            ran.push_back("held");
            return true;
        },
        told("held"));
    gate.wait_entered();
    f.worker->run(task("first"), told("first"));
    f.worker->run(task("throws", true), told("throws"));
    f.worker->run(task("urgent"), told("urgent"), true);
    auto read = std::make_shared<CStoreJob>();
    read->reset(CStoreJob::READ);
    read->ids = f.ids;
    read->done = [&] { completions.push_back("read"); };
    f.worker->submit(read);
    gate.open();
    BOOST_TEST(f.loop_until([&] { return completions.size() == 5; }));
    BOOST_TEST(ran == (std::vector<std::string>{"held", "urgent", "first", "throws"}),
               boost::test_tools::per_element());
    BOOST_TEST(completions ==
                   (std::vector<std::string>{"held", "urgent", "first", "throws!", "read"}),
               boost::test_tools::per_element());
    BOOST_TEST(read->outcome == CStoreJob::OK);
    BOOST_REQUIRE(read->read.size() == 3u);
    BOOST_TEST(read->read[0].value.to_int() == 5);
    BOOST_TEST(read->read[1].value.str() == "x");
    BOOST_TEST(read->read[2].status != API_STATUS_OK);
    BOOST_TEST(f.fatal.empty());
}

// What the worker cannot go on from ends it and calls the fatal handler.
BOOST_AUTO_TEST_CASE(a_worker_that_cannot_go_on_is_fatal) {
    CStoreFixture f;
    CStderrCapture capture;
    f.worker->run([](CCdsHandle&) -> bool { throw 7; });
    bool ran = false;
    f.worker->run([&ran](CCdsHandle&) { return ran = true; });
    BOOST_TEST(eventually([&] {
        std::lock_guard<std::mutex> lock(f.mutex);
        return !f.fatal.empty();
    }));
    std::lock_guard<std::mutex> lock(f.mutex);
    BOOST_TEST(f.fatal == "the store worker failed");
    BOOST_TEST(!ran);
}

#ifndef __SANITIZE_ADDRESS__
// AddressSanitizer cannot unwind a cancelled thread (it fails an internal check), so this
// case runs in the plain build only.
BOOST_AUTO_TEST_CASE(stuck_worker_is_cancelled) {
    CStoreFixture f([](CStoreWorker::options_t& o) { o.name = "sleepy"; });
    const int32_t level = thread_log()._verbosity;
    thread_log()._verbosity = 1;
    CStderrCapture capture;
    CGate gate;
    f.worker->run([&gate](CCdsHandle&) {
        gate.wait();
        for (int i = 0; i < 3000; ++i)
            ::usleep(10000); // a cancellation point
        return true;
    });
    gate.wait_entered();
    gate.open();
    const auto start = std::chrono::steady_clock::now();
    f.worker->stop(std::chrono::seconds(1));
    const auto took = std::chrono::steady_clock::now() - start;
    BOOST_TEST(!f.worker->running());
    BOOST_TEST((took < std::chrono::seconds(5)));
    const std::string log = capture.text();
    thread_log()._verbosity = level;
    BOOST_TEST(log.find("Timed out waiting for 'sleepy' to exit! Forcing thread to exit...") !=
                   std::string::npos,
               log);
}
#endif

// The writes of one loop turn share one transaction (one time stamp), in order, each answered
// after it; a leaf the store lacks fails alone.
BOOST_AUTO_TEST_CASE(writes_of_a_turn_share_one_commit) {
    CStoreFixture f;
    bool submitted = false;
    BOOST_TEST(f.loop_until([&] {
        if (!submitted) {
            submitted = true;
            f.access->submit(f.write_job(0, CElement::from_int(1)), 0);
            f.access->submit(f.write_job(1, CElement::from_string("y")), 0);
            f.access->submit(f.write_job(0, CElement::from_int(2)), 0);
            f.access->submit(f.write_job(2, CElement::from_int(3)), 0);
            // Not made within the call.
            BOOST_TEST(f.outcomes.empty());
        }
        return f.outcomes.size() == 4;
    }));
    BOOST_REQUIRE(f.outcomes.size() == 4u);
    for (size_t i = 0; i < 4; ++i)
        BOOST_TEST(f.outcomes[i].second == CStoreJob::OK);
    BOOST_TEST(f.store.value("/Dev/A").to_int() == 2);
    const CElement b = f.store.value("/Dev/B");
    BOOST_TEST(b.str() == "y");
    const CElement a = f.store.value("/Dev/A");
    BOOST_TEST((a.time().tv_sec == b.time().tv_sec && a.time().tv_usec == b.time().tv_usec));
}

// A store held by another process sends the writes to the worker. One whose time-out passes
// first is answered TIMED_OUT and never made, though the others in its transaction are; and
// writes that come meanwhile queue behind them in order.
BOOST_AUTO_TEST_CASE(a_write_answered_with_a_time_out_is_never_made) {
    CStoreFixture f;
    std::unique_ptr<CStoreHolder> holder(new CStoreHolder(f.store.path()));
    const bool finished = f.run_with([&] {
        f.in_loop([&] {
            f.access->submit(f.write_job(0, CElement::from_int(100)), 100);
            f.access->submit(f.write_job(1, CElement::from_string("kept")), 0);
            return 0;
        });
        eventually([&] { return f.in_loop([&] { return f.outcomes.size() >= 1; }); });
        // A write after the time-out still queues behind the others.
        f.in_loop([&] {
            f.access->submit(f.write_job(1, CElement::from_string("last")), 0);
            return 0;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        holder->release();
        eventually([&] { return f.in_loop([&] { return f.outcomes.size() >= 3; }); });
    });
    BOOST_TEST(finished);
    BOOST_REQUIRE(f.outcomes.size() == 3u);
    BOOST_TEST(f.outcomes[0].first == 0u);
    BOOST_TEST(f.outcomes[0].second == CStoreJob::TIMED_OUT);
    BOOST_TEST(f.outcomes[1].second == CStoreJob::OK);
    BOOST_TEST(f.outcomes[2].second == CStoreJob::OK);
    BOOST_TEST(f.store.value("/Dev/A").to_int() == 5);
    BOOST_TEST(f.store.value("/Dev/B").str() == "last");
}

// The worker checkpoints the WAL once the I/O side has been idle a moment.
BOOST_AUTO_TEST_CASE(checkpoints_when_idle) {
    CStoreFixture f([](CStoreWorker::options_t& o) { o.idle = std::chrono::milliseconds(50); });
    f.access->submit(f.write_job(0, CElement::from_int(9)), 0);
    BOOST_TEST(f.loop_until([&] { return f.worker->checkpoints() >= 1u; }));
    BOOST_TEST(f.store.value("/Dev/A").to_int() == 9);
}

BOOST_AUTO_TEST_CASE(watchdog_pings_at_half_the_timeout) {
    CStoreFixture f({}, 200);
    CStoreWorker& worker = *f.worker;
    f.manager.add(CWatchdogTimer::create(f.manager, 200, [&worker] {
        worker.run(
            [](CCdsHandle& cds) {
                cds.watchdog_ping();
                return true;
            },
            {}, true);
    }));
    std::set<std::pair<int64_t, int64_t>> pings;
    const bool finished = f.run_with([&] {
        toolkit::CCdsStore reader;
        BOOST_REQUIRE(reader.open(f.store.path()) == 0);
        for (int i = 0; i < 40; ++i) {
            std::vector<toolkit::CWatchdogInfo> entries;
            BOOST_REQUIRE(reader.watchdogs(entries) == 0);
            BOOST_REQUIRE(entries.size() == 1u);
            pings.insert({entries[0].last_ping.tv_sec, entries[0].last_ping.tv_usec});
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
    });
    BOOST_TEST(finished);
    // About a second at one ping per 100 ms (the registration counts as one more).
    BOOST_TEST(pings.size() >= 7u);
    BOOST_TEST(pings.size() <= 13u);
}

BOOST_AUTO_TEST_SUITE_END()
