#include "cds/event_queue.h"
#include "toolkit/store_fixture.h"
#include "util/error.h"

#include <boost/test/unit_test.hpp>

#include <set>

using toolkit::CEvent;

namespace {

CEvent record(uint64_t id, time_t sec, suseconds_t usec, uint32_t completion = 0,
              uint32_t kind = 4) {
    CEvent ev;
    ev.id = id;
    ev.kind = kind;
    ev.completion = completion;
    ev.time.tv_sec = sec;
    ev.time.tv_usec = usec;
    return ev;
}

typedef std::vector<uint64_t> ids_t;

struct CLogFixture {
    CTestStore store;
    void add(const std::vector<CEvent>& records) {
        toolkit::CLog log;
        BOOST_REQUIRE_EQUAL(log.init(store.path(), 0, true, false, true, true, 0, 0, 0, false), 0);
        BOOST_REQUIRE_EQUAL(log.add(records), 0);
    }
    // The ids in the slots of a queue read from the log, 0 for an empty slot.
    ids_t ids(unsigned length) {
        const CEventQueue q(length, store.path());
        BOOST_REQUIRE_EQUAL(q.size(), length);
        ids_t out;
        for (unsigned i = 0; i < length; ++i)
            out.push_back(q.get(i).kind == 0 ? 0 : q.get(i).id);
        return out;
    }
};

} // namespace

BOOST_FIXTURE_TEST_SUITE(cds_event_queue, CLogFixture)

BOOST_AUTO_TEST_CASE(no_log_and_bad_logs) {
    BOOST_TEST(CEventQueue(3, "").get(2).kind == 0u);
    BOOST_CHECK_THROW(CEventQueue(3, store.dir().file("missing.db")), CError);
    write_text(store.dir().file("junk.db"), tk_string(2048, 'j'));
    BOOST_CHECK_THROW(CEventQueue(3, store.dir().file("junk.db")), CError);
    BOOST_TEST(ids(4) == (ids_t{0, 0, 0, 0}));
}

BOOST_AUTO_TEST_CASE(newest_first_then_empty_slots) {
    add({record(1, 10, 0), record(2, 20, 0), record(3, 30, 0)});
    BOOST_TEST(ids(5) == (ids_t{3, 2, 1, 0, 0}));
    BOOST_TEST(ids(2) == (ids_t{3, 2}));
    BOOST_TEST(ids(0).empty());
}

BOOST_AUTO_TEST_CASE(records_of_one_event_merge) {
    CEvent newest = record(7, 50, 0, 2);
    newest.url = tk_string("newest");
    CEvent done = record(7, 40, 0, 0);
    done.attachments = {"wave.dat"};
    done.url = tk_string("older");
    // Event 8 never completes; event 9's records arrive complete first, then updated.
    add({done, newest, record(8, 45, 0, 3), record(8, 46, 0, 1), record(9, 30, 0, 0),
         record(9, 35, 0, 1)});
    BOOST_TEST(ids(4) == (ids_t{7, 9, 0, 0}));
    const CEventQueue q(4, store.path());
    // The newest record's data and time, complete, with the attachments of the one that was.
    BOOST_TEST(q.get(0).time.tv_sec == 50);
    BOOST_TEST(*q.get(0).url == "newest");
    BOOST_TEST(q.get(0).completion == 0u);
    BOOST_TEST(q.get(0).attachments == std::vector<tk_string>{"wave.dat"});
    BOOST_TEST(q.get(1).time.tv_sec == 35);
}

BOOST_AUTO_TEST_CASE(pages_through_a_long_log) {
    std::vector<CEvent> records;
    for (uint64_t i = 1; i <= 1000; ++i) {
        records.push_back(record(i, static_cast<time_t>(1000 + i), 0, 1));
        records.push_back(record(i, static_cast<time_t>(1000 + i), 1, 0));
    }
    add(records);
    const ids_t got = ids(300);
    BOOST_TEST(got.front() == 1000u);
    for (size_t i = 1; i < got.size(); ++i)
        BOOST_REQUIRE_EQUAL(got[i], got[i - 1] - 1);
}

BOOST_AUTO_TEST_CASE(bursts_at_one_instant) {
    // 100 records at one instant: more than a first page, split by asking for more.
    std::vector<CEvent> records{record(1, 10, 0)};
    for (uint64_t i = 0; i < 100; ++i)
        records.push_back(record(100 + i, 20, 0));
    records.push_back(record(2, 30, 0));
    add(records);
    const ids_t got = ids(103);
    BOOST_TEST(got.front() == 2u);
    BOOST_TEST(got[101] == 1u);
    BOOST_TEST(got[102] == 0u);
    BOOST_TEST(std::set<uint64_t>(got.begin() + 1, got.begin() + 101).size() == 100u);
}

BOOST_AUTO_TEST_CASE(more_than_8192_at_one_instant) {
    // The instant that cannot fit in one request is stepped over, the rest is read.
    std::vector<CEvent> records{record(1, 99, 999999)};
    records.push_back(record(2, 100, 0)); // same second, one microsecond before the burst
    for (uint64_t i = 0; i < 9000; ++i)
        records.push_back(record(1000 + i, 101, 0));
    records.push_back(record(3, 102, 0));
    records.push_back(record(4, 102, 1));
    add(records);
    BOOST_TEST(ids(5) == (ids_t{4, 3, 2, 1, 0}));
    // With only the burst and nothing older the queue stays empty and reading ends.
    CLogFixture only;
    only.add(std::vector<CEvent>(8193, record(5, 7, 0)));
    BOOST_TEST(only.ids(2) == (ids_t{0, 0}));
}

BOOST_AUTO_TEST_CASE(live_events) {
    add({record(1, 10, 0), record(2, 20, 0)});
    CEventQueue q(3, store.path());
    q.add(record(3, 30, 0, 0, 5)); // not a kind that is kept
    BOOST_TEST(q.get(0).id == 2u);
    CEvent update = record(1, 40, 0, 0, 8);
    update.attachments = {"new.dat"};
    q.add(update); // same id: updated in place
    BOOST_TEST((q.get(1).id == 1u && q.get(1).time.tv_sec == 40));
    BOOST_TEST(q.get(1).attachments.size() == 1u);
    q.add(record(3, 50, 0, 0, 8));
    q.add(record(4, 60, 0, 0, 4));
    BOOST_TEST((q.get(0).id == 4u && q.get(1).id == 3u && q.get(2).id == 2u));
    CEventQueue empty(0, "");
    empty.add(record(5, 1, 0));
    BOOST_TEST(empty.size() == 0u);
}

BOOST_AUTO_TEST_SUITE_END()
