#include "mapping_test_util.h"
#include "modbus/map/time_mapping.h"

#include <boost/test/unit_test.hpp>

#include <sys/time.h>

using toolkit::CElement;

namespace {

// 2026-03-05 14:07:09.250 UTC, a Thursday, day 64 of the year.
const timeval when{1772719629, 250000};
const CElement at_when = CElement::from_time(when);

tm utc(time_t t) {
    tm out;
    gmtime_r(&t, &out);
    return out;
}

} // namespace

BOOST_AUTO_TEST_SUITE(mapping)

BOOST_AUTO_TEST_CASE(date_spec_letters) {
    BOOST_CHECK_THROW(CTimeMappingSpec("YYmx"), CError);
    BOOST_CHECK_THROW(CTimeMappingSpec("D"), CError);
    const CTimeMappingSpec all("dHIjmMSuwyYqQ");
    const tm t = utc(when.tv_sec);
    const int expected[] = {5, 14, 2, 64, 3, 7, 9, 4, 4, 26, 2026, 250, 9250};
    for (size_t i = 0; i < all.size(); ++i)
        BOOST_TEST(all.translate(i, t, when) == expected[i], "letter " << all.str()[i]);

    const CTimeMappingSpec twelve("IuwI");
    tm midnight_sunday = utc(1772323200); // 2026-03-01 00:00:00, a Sunday
    BOOST_TEST(twelve.translate(0, midnight_sunday, when) == 12);
    BOOST_TEST(twelve.translate(1, midnight_sunday, when) == 7);
    BOOST_TEST(twelve.translate(2, midnight_sunday, when) == 0);
    midnight_sunday.tm_hour = 12;
    BOOST_TEST(twelve.translate(3, midnight_sunday, when) == 12);
}

BOOST_AUTO_TEST_CASE(date_spec_fields_back) {
    // The rules back are the device's, not always the inverse of the rules out. (The other
    // letters are read back in date_layouts.)
    const CTimeMappingSpec spec("IuYj");
    const struct {
        size_t letter;
        mbreg_t value;
        int tm::*field;
        int want;
    } cases[] = {
        {0, 0, &tm::tm_hour, 12},
        {0, 12, &tm::tm_hour, 12},
        {0, 13, &tm::tm_hour, 1},
        {0, 7, &tm::tm_hour, 7},
        {1, 0, &tm::tm_wday, 7},
        {2, 2026, &tm::tm_year, 2026}, // taken as years since 1900, unchanged
        {3, 64, &tm::tm_yday, 63},
    };
    for (const auto& c : cases) {
        tm t = utc(when.tv_sec);
        timeval tv = when;
        spec.translate(c.letter, c.value, t, tv);
        BOOST_TEST((t.*c.field == c.want), spec.str()[c.letter] << " " << c.value);
    }
}

BOOST_AUTO_TEST_CASE(date_layouts) {
    const CUtcZone zone;
    const CElement stamped(CElement::from_time(timeval{0, 0}), when);
    const CTranslation cases[] = {
        {"TIME DateSpec=YYmd", nullptr, at_when, {2026, 0x0305}, CElement()},
        {"TIME DateSpec=YYmdHMSS", nullptr, at_when, {2026, 0x0305, 0x0E07, 9}, CElement()},
        // A doubled letter counts where a register starts; elsewhere each letter is a byte.
        {"TIME DateSpec=mYYd", nullptr, at_when, {0x03EA, 0xEA05}, CElement()},
        {"TIME DateSpec=ymd", nullptr, at_when, {0x1A03, 0x0500}, CElement()},
        {"TIME DateSpec=mdHM BitOffset=8", nullptr, at_when, {0x0003, 0x050E, 0x0700}, CElement()},
        {"TIME DateSpec=YYmd BitOffset=8", nullptr, at_when, {0x00EA, 0xEA03, 0x0500}, CElement()},
        // The time stamp instead of the value, unless "Timestamp" is "0".
        {"TIME DateSpec=Hq Timestamp=1", nullptr, stamped, {0x0EFA}, CElement()},
        {"TIME DateSpec=Hq Timestamp=0", nullptr, stamped, {0x0000}, CElement()},
        // Back as well when every field is named: a doubled letter in the middle, a last
        // letter alone, the first byte alone at offset 8.
        {"TIME DateSpec=ymdHMSqq", nullptr, at_when, {0x1A03, 0x050E, 0x0709, 250}, at_when},
        {"TIME DateSpec=ymdHQQM", nullptr, at_when, {0x1A03, 0x050E, 0x2422, 0x0700}, at_when},
        {"TIME DateSpec=MymdHQQ BitOffset=8",
         nullptr,
         at_when,
         {0x0007, 0x1A03, 0x050E, 0x2422},
         at_when},
    };
    for (const CTranslation& c : cases)
        check(c);
    BOOST_CHECK_THROW(translator("TIME DateSpec="), CError);
}

BOOST_AUTO_TEST_CASE(date_written_back) {
    const CUtcZone zone;
    // Fields the date spec does not name come from the current time.
    timeval now;
    gettimeofday(&now, nullptr);
    const timeval day_start = from_regs(*translator("TIME DateSpec=HMS"), {0, 0}).to_timeval();
    BOOST_TEST(day_start.tv_sec % 86400 == 0);
    BOOST_TEST(now.tv_sec - day_start.tv_sec < 86400 + 5);

    // A doubled q may carry whole seconds.
    const timeval carried =
        from_regs(*translator("TIME DateSpec=qqHMS"), {1500, 0, 0}).to_timeval();
    BOOST_TEST(carried.tv_sec % 86400 == 1);
    BOOST_TEST(carried.tv_usec == 500000);

    // A time stamp cannot be written: the translator refuses.
    CSubsystemLog log(SS_MAPPING, 2);
    const regvec_t regs{2026, 0x0305};
    CElement out;
    BOOST_TEST(!translator("TIME DateSpec=YYmd Timestamp=1")
                    ->from_registers(regs.data(), CModbusParamDynamicConfig(), out));
    BOOST_TEST(log.text().find("Can't set a value's timestamp via Modbus") != std::string::npos);
}

// The device is 32-bit and is built with a 64-bit time_t on purpose: with a 32-bit one these
// seconds do not fit.
BOOST_AUTO_TEST_CASE(dates_after_2038_round_trip) {
    BOOST_TEST(sizeof(time_t) == 8u, "time_t has " << sizeof(time_t) << " bytes");
    const CUtcZone zone;
    // Cast, not braced: a 32-bit time_t then fails below with the values, not at compile time.
    // 2040-02-29 12:34:56.5 UTC (a leap day) and 2038-01-19 03:14:08, the first second past
    // 2^31.
    const CElement leap_2040 =
        CElement::from_time(timeval{static_cast<time_t>(2214131696LL), 500000});
    const CElement past_int32 = CElement::from_time(timeval{static_cast<time_t>(2147483648LL), 0});
    check({"TIME DateSpec=ymdHMSqq", nullptr, leap_2040, {0x2802, 0x1D0C, 0x2238, 500}, leap_2040});
    check({"TIME DateSpec=ymdHMSqq", nullptr, past_int32, {0x2601, 0x1303, 0x0E08, 0}, past_int32});
}

BOOST_AUTO_TEST_SUITE_END()
