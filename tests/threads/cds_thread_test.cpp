#include "cds/cds_handle.h"
#include "io/io_actor.h"
#include "io/io_timer.h"
#include "io/watchdog_timer.h"
#include "support/worker_loop_fixture.h"
#include "threads/cds/cds_thread.h"
#include "threads/cds/commands/thread_cds_request.h"
#include "threads/cds/commands/thread_cds_watchdog_ping.h"
#include "threads/commands/thread_response_handler.h"
#include "toolkit/store_fixture.h"
#include "util/cast.h"

#include <boost/test/unit_test.hpp>

#include <set>

namespace {

using toolkit::CElement;

struct CLeafRequester : CThreadResponseHandler {
    void post(CThreadCommand& cmd, bool timed_out) override {
        const CThreadCdsRequest& done = *poly_cast<CThreadCdsRequest*>(&cmd);
        if (done.is_write()) {
            statuses = done.statuses();
            wrote = true;
        } else {
            got = done.values();
            got_failed = cmd.failed();
        }
        timeouts += timed_out;
    }
    std::vector<toolkit::CLeafValue> got;
    std::vector<api_status_t> statuses;
    bool got_failed = true;
    bool wrote = false;
    int timeouts = 0;
};

struct CCdsFixture {
    CCdsFixture() {
        store.define("/Dev/A", CElement::TYPE_INT, CElement::from_int(5));
        store.define("/Dev/B", CElement::TYPE_STRING, CElement::from_string("x"));
        for (const char* path : {"/Dev/A", "/Dev/B", "/Dev/C"})
            ids.push_back(table.add(path));
        auto thread = std::make_unique<CCdsThread>(boost::none, std::make_shared<CCdsHandle>());
        cds = thread.get();
        // Before the loop runs, nothing else uses the connection.
        cds->handle().bind(table);
        loop.reset(new CWorkerLoopFixture(std::move(thread)));
    }

    CTestStore store;
    toolkit::CLeafTable table;
    std::vector<toolkit::leaf_id_t> ids; // A, B, C (C has no leaf)
    CCdsThread* cds = nullptr;
    std::unique_ptr<CWorkerLoopFixture> loop;
};

} // namespace

BOOST_AUTO_TEST_SUITE(threads)
BOOST_AUTO_TEST_SUITE(cds_thread)

BOOST_AUTO_TEST_CASE(read_and_write_through_the_loop) {
    CCdsFixture f;
    auto requester = std::make_shared<CLeafRequester>();
    f.loop->send(cmd_ptr_t(new CThreadCdsRequest(requester, f.ids)));
    f.loop->send(cmd_ptr_t(new CThreadCdsRequest(requester, {f.ids[0], f.ids[2]},
                                                 {CElement::from_int(42), CElement::from_int(1)})));
    {
        // Nobody waits for this one any more: it must not reach the store. The requester goes
        // before the request is sent, or the CDS thread may run it first (it does under qemu).
        auto gone = std::make_shared<CLeafRequester>();
        cmd_ptr_t late(new CThreadCdsRequest(gone, {f.ids[1]}, {CElement::from_string("y")}));
        gone.reset();
        f.loop->send(std::move(late));
    }
    const bool finished = f.loop->run_with([&] {
        for (int i = 0; i < 200 && f.loop->in_loop([&] { return !requester->wrote; }); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    });
    BOOST_TEST(finished);
    BOOST_TEST(!requester->got_failed);
    // The values come back in the order of the ids, copied out of the connection's cache.
    BOOST_REQUIRE(requester->got.size() == 3u);
    BOOST_TEST(requester->got[0].status == API_STATUS_OK);
    BOOST_TEST(requester->got[0].value.to_int() == 5);
    BOOST_TEST(requester->got[1].value.str() == "x");
    BOOST_TEST(requester->got[2].status != API_STATUS_OK);
    // One status per id: the leaf that does not exist is refused, the other written.
    BOOST_REQUIRE(requester->statuses.size() == 2u);
    BOOST_TEST(requester->statuses[0] == API_STATUS_OK);
    BOOST_TEST(requester->statuses[1] != API_STATUS_OK);
    BOOST_TEST(requester->timeouts == 0);
    BOOST_TEST(f.store.value("/Dev/A").to_int() == 42);
    BOOST_TEST(f.store.value("/Dev/B").str() == "x");
}

BOOST_AUTO_TEST_CASE(watchdog_pings_at_half_the_timeout) {
    CCdsFixture f;
    f.cds->handle().watchdog_register(200);
    f.loop->manager.add(CWatchdogTimer::create(
        f.loop->manager, 200, [&f] { f.cds->send(cmd_ptr_t(new CThreadCdsWatchdogPing), true); }));
    std::set<std::pair<int64_t, int64_t>> pings;
    const bool finished = f.loop->run_with([&] {
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
BOOST_AUTO_TEST_SUITE_END()
