#include "mapping_test_util.h"
#include "modbus/map/time_mapping.h"
#include "util/error.h"

#include <boost/test/unit_test.hpp>

using toolkit::CElement;

namespace {

const CModbusParamDynamicConfig no_units;

// 2026-03-05 14:07:09.250 UTC, a Thursday, day 64 of the year.
const timeval when{1772719629, 250000};

std::unique_ptr<CTimeMapping> date(const char* spec, const char* offset = "0",
                                   const char* timestamp = nullptr) {
    toolkit::node_map_t node = make_node(
        {{"ExternalValueType", "DATATYPE_TIME"}, {"DateSpec", spec}, {"BitOffset", offset}});
    if (timestamp)
        node.emplace("Timestamp", timestamp);
    return std::make_unique<CTimeMapping>(node);
}

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

    BOOST_TEST(CTimeMappingSpec("YYmd").double_specifier(0));
    BOOST_TEST(!CTimeMappingSpec("YYmd").double_specifier(1));
    BOOST_TEST(!CTimeMappingSpec("YmdY").double_specifier(3));
    BOOST_TEST(CTimeMappingSpec("YYY").double_specifier(1));
}

BOOST_AUTO_TEST_CASE(date_spec_fields_back) {
    // The rules back are the device's, not always the inverse of the rules out.
    const CTimeMappingSpec spec("IIuyYjmqQ");
    tm t = utc(when.tv_sec);
    timeval tv = when;
    const auto hour_of = [&](mbreg_t v) {
        spec.translate(0, v, t, tv);
        return t.tm_hour;
    };
    BOOST_TEST(hour_of(0) == 12);
    BOOST_TEST(hour_of(12) == 12);
    BOOST_TEST(hour_of(13) == 1);
    BOOST_TEST(hour_of(7) == 7);
    spec.translate(2, 0, t, tv);
    BOOST_TEST(t.tm_wday == 7);
    spec.translate(3, 31, t, tv);
    BOOST_TEST(t.tm_year == 2031 - 1900);
    spec.translate(4, 2026, t, tv);
    BOOST_TEST(t.tm_year == 2026); // taken as years since 1900, unchanged
    spec.translate(5, 64, t, tv);
    BOOST_TEST(t.tm_yday == 63);
    spec.translate(6, 3, t, tv);
    BOOST_TEST(t.tm_mon == 2);
    spec.translate(7, 250, t, tv);
    BOOST_TEST(tv.tv_usec == 250000);
    spec.translate(8, 9750, t, tv);
    BOOST_TEST(t.tm_sec == 9);
    BOOST_TEST(tv.tv_usec == 750000);
}

BOOST_AUTO_TEST_CASE(date_layouts) {
    const CElement value = CElement::from_time(when);
    BOOST_TEST(to_regs(*date("YYmd"), value, no_units) == (regvec_t{2026, 0x0305}));
    const auto full = date("YYmdHMSS");
    BOOST_TEST(full->size() == 8);
    BOOST_TEST(full->reg_count() == 4u);
    BOOST_TEST(to_regs(*full, value, no_units) == (regvec_t{2026, 0x0305, 0x0E07, 9}));
    // A doubled letter counts where a register starts; elsewhere each letter is a byte.
    BOOST_TEST(to_regs(*date("mYYd"), value, no_units) == (regvec_t{0x03EA, 0xEA05}));
    BOOST_TEST(to_regs(*date("ymd"), value, no_units) == (regvec_t{0x1A03, 0x0500}));
    BOOST_TEST(to_regs(*date("mdHM", "8"), value, no_units) == (regvec_t{0x0003, 0x050E, 0x0700}));
    BOOST_TEST(to_regs(*date("YYmd", "8"), value, no_units) == (regvec_t{0x00EA, 0xEA03, 0x0500}));

    // The time stamp instead of the value, unless "Timestamp" is "0".
    const CElement stamped(CElement::from_time(timeval{0, 0}), when);
    BOOST_TEST(to_regs(*date("Hq", "0", "1"), stamped, no_units) == regvec_t{0x0EFA});
    BOOST_TEST(to_regs(*date("Hq", "0", "0"), stamped, no_units) == regvec_t{0x0000});

    BOOST_CHECK_THROW(date("YYmd", "4"), CError);
    BOOST_CHECK_THROW(date(""), CError);
}

BOOST_AUTO_TEST_CASE(date_written_back) {
    const CUtcZone zone;
    const auto m = date("ymdHMSqq");
    const regvec_t regs = to_regs(*m, CElement::from_time(when), no_units);
    BOOST_TEST(regs == (regvec_t{0x1A03, 0x050E, 0x0709, 250}));
    const CElement back = from_regs(*m, regs, no_units);
    BOOST_TEST(back.is_time());
    BOOST_TEST(back.to_timeval().tv_sec == when.tv_sec);
    BOOST_TEST(back.to_timeval().tv_usec == when.tv_usec);
    BOOST_TEST(CElement::is_invalid_time(back.time()));

    // Fields the date spec does not name come from the current time.
    timeval now;
    gettimeofday(&now, nullptr);
    const timeval day_start = from_regs(*date("HMS"), {0x0000, 0x0000}, no_units).to_timeval();
    BOOST_TEST(day_start.tv_sec % 86400 == 0);
    BOOST_TEST(now.tv_sec - day_start.tv_sec < 86400 + 5);

    // A doubled q may carry whole seconds.
    const timeval carried = from_regs(*date("qqHMS"), {1500, 0, 0}, no_units).to_timeval();
    BOOST_TEST(carried.tv_sec % 86400 == 1);
    BOOST_TEST(carried.tv_usec == 500000);

    CMappingLog log;
    // A time stamp cannot be written: the translator refuses.
    const auto stamp = date("YYmd", "0", "1");
    const regvec_t date_regs{2026, 0x0305};
    CElement out;
    BOOST_TEST(!stamp->from_registers(date_regs.data(), no_units, out));
    BOOST_TEST(log.text().find("Can't set a value's timestamp via Modbus") != std::string::npos);
}

BOOST_AUTO_TEST_CASE(date_profile_row) {
    const CProfileMapping row = date("YYmd", "0", "1")->reverse_map(CElement(), "", no_units);
    BOOST_TEST(row[CProfileMapping::TYPE] == "DATE");
    BOOST_TEST(row[CProfileMapping::IS_TIMESTAMP] == "Yes");
    BOOST_TEST(row[CProfileMapping::DATE_SPEC] == "YYmd");
}

BOOST_AUTO_TEST_SUITE_END()
