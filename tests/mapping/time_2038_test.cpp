// Dates after January 2038 must survive a time mapping both ways: the device is 32-bit and
// is built with a 64-bit time_t on purpose. With a 32-bit one these seconds do not fit.
#include "mapping_test_util.h"
#include "modbus/map/time_mapping.h"

#include <boost/test/unit_test.hpp>

#include <sys/time.h>

using toolkit::CElement;

BOOST_AUTO_TEST_SUITE(mapping)

BOOST_AUTO_TEST_CASE(dates_after_2038_round_trip) {
    BOOST_TEST(sizeof(time_t) == 8u, "time_t has " << sizeof(time_t) << " bytes");
    const CUtcZone zone;
    const CModbusParamDynamicConfig no_units;
    toolkit::node_map_t node = make_node(
        {{"ExternalValueType", "DATATYPE_TIME"}, {"DateSpec", "ymdHMSqq"}, {"BitOffset", "0"}});
    const CTimeMapping m(node);
    // Cast, not braced: a 32-bit time_t then fails below with the values, not at compile time.
    const time_t seconds_2040 = static_cast<time_t>(2214131696LL);
    const time_t past_int32 = static_cast<time_t>(2147483648LL);
    // 2040-02-29 12:34:56.5 UTC (a leap day) and 2038-01-19 03:14:08, the first second past
    // 2^31, to registers and back.
    struct {
        time_t seconds;
        regvec_t regs;
    } cases[] = {
        {seconds_2040, {0x2802, 0x1D0C, 0x2238, 500}},
        {past_int32, {0x2601, 0x1303, 0x0E08, 0}},
    };
    for (const auto& c : cases) {
        const timeval when{c.seconds, c.regs[3] * 1000};
        BOOST_TEST(to_regs(m, CElement::from_time(when), no_units) == c.regs);
        const timeval back = from_regs(m, c.regs, no_units).to_timeval();
        BOOST_TEST(back.tv_sec == c.seconds);
        BOOST_TEST(back.tv_usec == when.tv_usec);
    }
}

BOOST_AUTO_TEST_SUITE_END()
