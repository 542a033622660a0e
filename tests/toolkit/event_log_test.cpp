#include "toolkit/event_log.h"
#include "toolkit/kvr.h"
#include "toolkit/store_fixture.h"

#include <boost/test/unit_test.hpp>

using toolkit::CEvent;
using toolkit::CLog;

namespace {

CEvent event(uint64_t id, time_t sec, suseconds_t usec, const char* source = nullptr) {
    CEvent ev;
    ev.id = id;
    ev.kind = 4;
    ev.time.tv_sec = sec;
    ev.time.tv_usec = usec;
    if (source)
        ev.source = tk_string(source);
    return ev;
}

std::vector<uint64_t> ids(const std::vector<CEvent>& records) {
    std::vector<uint64_t> out;
    for (const CEvent& ev : records)
        out.push_back(ev.id);
    return out;
}

struct CLogFixture {
    CTestStore store;
    CLog log;
    CLogFixture() {
        BOOST_REQUIRE_EQUAL(log.init(store.path(), 0, true, false, true, true, 0, 0, 0, false), 0);
    }
    std::vector<uint64_t> retrieve(const timeval* start, const timeval* end, unsigned count,
                                   const tk_string& filter = tk_string()) {
        std::vector<CEvent> records;
        BOOST_REQUIRE_EQUAL(log.retrieve(records, filter, start, end, count, true, false, 0), 0);
        return ids(records);
    }
};

} // namespace

BOOST_AUTO_TEST_SUITE(toolkit)
BOOST_FIXTURE_TEST_SUITE(event_log, CLogFixture)

BOOST_AUTO_TEST_CASE(newest_records_oldest_first) {
    BOOST_TEST(retrieve(nullptr, nullptr, 10).empty());
    // Inserted out of time order; ids 3 and 4 share one instant.
    std::vector<CEvent> events = {event(1, 100, 0), event(5, 300, 0), event(3, 200, 7),
                                  event(4, 200, 7), event(2, 150, 999999)};
    BOOST_REQUIRE_EQUAL(log.add(events), 0);
    typedef std::vector<uint64_t> v;
    BOOST_TEST(retrieve(nullptr, nullptr, 10) == (v{1, 2, 3, 4, 5}),
               boost::test_tools::per_element());
    BOOST_TEST(retrieve(nullptr, nullptr, 2) == (v{4, 5}), boost::test_tools::per_element());
    const timeval end{200, 7};
    BOOST_TEST(retrieve(nullptr, &end, 10) == (v{1, 2, 3, 4}), boost::test_tools::per_element());
    BOOST_TEST(retrieve(nullptr, &end, 1) == (v{4}), boost::test_tools::per_element());
    const timeval before{200, 6};
    BOOST_TEST(retrieve(nullptr, &before, 10) == (v{1, 2}), boost::test_tools::per_element());
    const timeval start{150, 999999};
    BOOST_TEST(retrieve(&start, &end, 10) == (v{2, 3, 4}), boost::test_tools::per_element());
    BOOST_TEST(retrieve(nullptr, nullptr, 0).empty());
}

BOOST_AUTO_TEST_CASE(fields_round_trip) {
    CEvent ev = event(0xfedcba9876543210ull, 1700000000, 123456, "/Sensors/OverVoltage");
    ev.kind = 8;
    ev.completion = 0xffffffffu;
    ev.attachments = {"wave 1.dat", "b;c"};
    ev.value = -5;
    ev.url = tk_string("http://x/y");
    BOOST_REQUIRE_EQUAL(log.add(ev), 0);
    BOOST_REQUIRE_EQUAL(log.add(event(2, 1, 0)), 0);
    std::vector<CEvent> records;
    BOOST_REQUIRE_EQUAL(log.retrieve(records, "", nullptr, nullptr, 10, true, false, 0), 0);
    BOOST_REQUIRE_EQUAL(records.size(), 2u);
    const CEvent& r = records[1];
    BOOST_TEST(r.id == ev.id);
    BOOST_TEST(r.kind == 8u);
    BOOST_TEST(r.completion == 0xffffffffu);
    BOOST_TEST(r.attachments == ev.attachments, boost::test_tools::per_element());
    BOOST_TEST(r.time.tv_sec == 1700000000);
    BOOST_TEST(r.time.tv_usec == 123456);
    BOOST_TEST(*r.source == "/Sensors/OverVoltage");
    BOOST_TEST(r.value == -5);
    BOOST_TEST(*r.url == "http://x/y");
    BOOST_TEST(!records[0].source);
    BOOST_TEST(!records[0].url);
    BOOST_TEST(records[0].attachments.empty());
    // The filter selects by source prefix.
    BOOST_TEST(retrieve(nullptr, nullptr, 10, "/Sensors").size() == 1u);
    BOOST_TEST(retrieve(nullptr, nullptr, 10, "/Other").empty());
}

BOOST_AUTO_TEST_CASE(bad_batch_writes_nothing) {
    CEvent bad = event(2, 10, 0);
    bad.attachments = {"two\nlines"};
    BOOST_TEST(log.add(std::vector<CEvent>{event(1, 5, 0), bad}) != 0);
    BOOST_TEST(has_text(log.error(), "newline"));
    BOOST_TEST(retrieve(nullptr, nullptr, 10).empty());
}

BOOST_AUTO_TEST_CASE(opening) {
    CLog other;
    const tk_string missing = store.dir().file("log.db");
    BOOST_TEST(other.init(missing, 0, true, false, true, true, 0, 0, 0, false) != 0);
    BOOST_TEST(has_text(kvr_last_error(), missing));
    BOOST_TEST(!other.handle());
    // With create a missing file becomes an empty log.
    BOOST_REQUIRE_EQUAL(other.init(missing, 0, true, false, true, true, 0, 0, 0, true), 0);
    std::vector<CEvent> records;
    BOOST_TEST(other.retrieve(records, "", nullptr, nullptr, 5, true, false, 0) == 0);
    BOOST_TEST(records.empty());
    toolkit::kvr_log_handle_t h = other.release();
    BOOST_TEST(h);
    BOOST_TEST(other.retrieve(records, "", nullptr, nullptr, 5, true, false, 0) != 0);
    toolkit::kvr_log_close(h);
}

BOOST_AUTO_TEST_SUITE_END()
BOOST_AUTO_TEST_SUITE_END()
