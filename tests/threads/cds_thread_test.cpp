#include "cds/cds_handle.h"
#include "io/io_actor.h"
#include "io/io_timer.h"
#include "io/watchdog_timer.h"
#include "support/loop_fixture.h"
#include "threads/cds/cds_thread.h"
#include "threads/cds/commands/thread_cds_leaves.h"
#include "threads/commands/thread_response_handler.h"
#include "toolkit/store_fixture.h"

#include <boost/test/unit_test.hpp>

#include <set>

namespace {

using toolkit::CElement;

struct CLeafRequester : CThreadResponseHandler {
    void post(CThreadCdsGetLeaves& cmd, bool timed_out) override {
        got = cmd.leaves();
        got_failed = cmd.failed();
        timeouts += timed_out;
    }
    void post(CThreadCdsSetLeaves& cmd, bool timed_out) override {
        set = cmd.leaves();
        timeouts += timed_out;
    }
    std::unordered_set<CCdsLeaf> got, set;
    bool got_failed = true;
    int timeouts = 0;
};

struct CCdsFixture {
    CCdsFixture() {
        store.define("/Dev/A", CElement::TYPE_INT, CElement::from_int(5));
        store.define("/Dev/B", CElement::TYPE_STRING, CElement::from_string("x"));
        auto thread = std::make_unique<CCdsThread>(boost::none, std::make_shared<CCdsHandle>());
        cds = thread.get();
        loop.reset(new CLoopFixture(std::move(thread)));
        cds->create_actor(loop->manager);
    }
    static std::unordered_set<CCdsLeaf>
    leaves(std::initializer_list<std::pair<const char*, CElement>> list) {
        std::unordered_set<CCdsLeaf> out;
        for (const auto& entry : list)
            out.emplace(tk_string(entry.first), CElement(entry.second));
        return out;
    }
    static const CCdsLeaf& find(const std::unordered_set<CCdsLeaf>& set, const char* path) {
        static const CCdsLeaf none(tk_string("?"), CElement());
        const auto it = set.find(CCdsLeaf(tk_string(path), CElement()));
        return it == set.end() ? none : *it;
    }

    CTestStore store;
    CCdsThread* cds = nullptr;
    std::unique_ptr<CLoopFixture> loop;
};

} // namespace

BOOST_AUTO_TEST_SUITE(threads)
BOOST_AUTO_TEST_SUITE(cds_thread)

BOOST_AUTO_TEST_CASE(get_and_set_through_the_loop) {
    CCdsFixture f;
    auto requester = std::make_shared<CLeafRequester>();
    f.loop->core.add_cds_cmd(cmd_ptr_t(new CThreadCdsGetLeaves(
                                 requester, f.leaves({{"A", {}}, {"B", {}}, {"C", {}}}), "/Dev")),
                             false);
    f.loop->core.add_cds_cmd(cmd_ptr_t(new CThreadCdsSetLeaves(
                                 requester, f.leaves({{"A", CElement::from_int(42)}}), "/Dev")),
                             false);
    {
        // Nobody waits for this one any more: it must not reach the store.
        auto gone = std::make_shared<CLeafRequester>();
        f.loop->core.add_cds_cmd(cmd_ptr_t(new CThreadCdsSetLeaves(
                                     gone, f.leaves({{"B", CElement::from_string("y")}}), "/Dev")),
                                 false);
    }
    const bool finished = f.loop->run_with([&] {
        for (int i = 0; i < 200 && f.loop->in_loop([&] { return requester->set.empty(); }); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    });
    BOOST_TEST(finished);
    BOOST_TEST(!requester->got_failed);
    BOOST_TEST(f.find(requester->got, "A")._status == API_STATUS_OK);
    BOOST_TEST(f.find(requester->got, "A")._element.to_int() == 5);
    BOOST_TEST(f.find(requester->got, "B")._element.str() == "x");
    BOOST_TEST(f.find(requester->got, "C")._status != API_STATUS_OK);
    BOOST_TEST(f.find(requester->set, "A")._status == API_STATUS_OK);
    BOOST_TEST(requester->timeouts == 0);
    BOOST_TEST(f.store.value("/Dev/A").to_int() == 42);
    BOOST_TEST(f.store.value("/Dev/B").str() == "x");
}

BOOST_AUTO_TEST_CASE(watchdog_pings_at_half_the_timeout) {
    CCdsFixture f;
    f.cds->handle().watchdog_register(200);
    f.loop->manager.add(CWatchdogTimer::create(f.loop->manager, 200));
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
