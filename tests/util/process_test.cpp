#include "util/error.h"
#include "util/random.h"
#include "util/realtime_priority.h"
#include "util/timestamp.h"
#include "util/util.h"

#include <boost/test/unit_test.hpp>

#include <cstdlib>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

BOOST_AUTO_TEST_SUITE(util)
BOOST_AUTO_TEST_SUITE(process)

BOOST_AUTO_TEST_CASE(timestamp_normalize) {
    struct {
        time_t sec;
        int32_t nsec;
        time_t want_sec;
        int32_t want_nsec;
    } cases[] = {
        {1, -1, 0, 999999999},
        {-1, 1, 0, -999999999},
        {0, 1500000000, 1, 500000000},
        {0, -1500000000, -1, -500000000},
        {0, -5, 0, -5},
        {0, 5, 0, 5},
        {2, 2000000000, 4, 0},
        {-2, -1999999999, -3, -999999999},
        {5, -2100000000, 2, 900000000},
    };
    for (const auto& c : cases) {
        CTimestamp t(c.sec, c.nsec);
        t.normalize();
        BOOST_TEST(t.sec() == c.want_sec);
        BOOST_TEST(t.nsec() == c.want_nsec);
    }
}

BOOST_AUTO_TEST_CASE(timestamp_text) {
    // Nanoseconds are printed unpadded.
    BOOST_TEST(CTimestamp(0, 5).time_str(true) == "1970-01-01 00:00:00.5");
    BOOST_TEST(CTimestamp(1772668800, 123000000).time_str(true) == "2026-03-05 00:00:00.123000000");
    BOOST_TEST(CTimestamp(59, 0).time_str(true) == "1970-01-01 00:00:59.0");
    BOOST_TEST(CTimestamp::from_nsec(-1).nsec() == -1);
    BOOST_TEST(CTimestamp::from_nsec(3000000001LL).sec() == 3);
}

BOOST_AUTO_TEST_CASE(priority_parsing) {
    BOOST_TEST(CRealtimePriority::str_to_policy("normal") == SCHED_OTHER);
    BOOST_TEST(CRealtimePriority::str_to_policy("batch") == SCHED_BATCH);
    BOOST_TEST(CRealtimePriority::str_to_policy("fifo") == SCHED_FIFO);
    BOOST_TEST(CRealtimePriority::str_to_policy("rr") == SCHED_RR);
    BOOST_CHECK_THROW(CRealtimePriority::str_to_policy("FIFO"), CError);
    BOOST_CHECK_THROW(CRealtimePriority::str_to_policy(""), CError);

    const CRealtimePriority p("fifo", "0x10");
    BOOST_TEST(p.policy() == SCHED_FIFO);
    BOOST_TEST(p.priority() == 16);
    BOOST_TEST(CRealtimePriority("normal", "0").priority() == 0);
    for (const char* bad : {"100", "0", "12x", "", "99999999999999999999"})
        BOOST_CHECK_THROW(CRealtimePriority("rr", bad), CError);
    BOOST_CHECK_THROW(CRealtimePriority("normal", "1"), CError);
}

BOOST_AUTO_TEST_CASE(set_uid_refusals) {
    BOOST_CHECK_THROW(CUtil::set_uid("-1"), CUtil::no_such_user);
    BOOST_CHECK_THROW(CUtil::set_uid("12x"), CUtil::no_such_user);
    BOOST_CHECK_THROW(CUtil::set_uid(""), CUtil::no_such_user);
    // A number without a password entry is taken as it is; run it in a child so that the
    // test process keeps its user.
    const pid_t pid = ::fork();
    BOOST_REQUIRE(pid >= 0);
    if (pid == 0) {
        const uid_t want = ::getuid() == 0 ? 54321 : ::getuid();
        int code = 0;
        try {
            CUtil::set_uid(std::to_string(want));
            code = ::getuid() == want ? 0 : 2;
        } catch (...) {
            code = 1;
        }
        ::_exit(code);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    BOOST_TEST(WIFEXITED(status));
    BOOST_TEST(WEXITSTATUS(status) == 0);
}

BOOST_AUTO_TEST_CASE(random_repeatable) {
    CRandom a(42), b(42);
    BOOST_TEST(a.seed() == 42u);
    for (int i = 0; i < 100; ++i)
        BOOST_TEST(a.uniform(0u, 1000000u) == b.uniform(0u, 1000000u));
    const CTimestamp lo(10, 0), hi(10, 999);
    for (int i = 0; i < 100; ++i) {
        const CTimestamp t = a.uniform(lo, hi);
        BOOST_TEST((t.sec() == 10 && t.nsec() >= 0 && t.nsec() <= 999));
    }
    CRandom fresh;
    BOOST_TEST(fresh.uniform(5u, 5u) == 5u);
}

BOOST_AUTO_TEST_SUITE_END()
BOOST_AUTO_TEST_SUITE_END()
