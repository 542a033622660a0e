#include "test/global_test_data.h"
#include "toolkit/element.h"
#include "toolkit/kvr.h"

#include <boost/test/unit_test.hpp>

#include <cmath>
#include <cstring>
#include <limits>

using toolkit::CElement;

namespace {

timeval tv(int64_t sec, int64_t usec) {
    timeval t;
    t.tv_sec = static_cast<time_t>(sec);
    t.tv_usec = static_cast<suseconds_t>(usec);
    return t;
}

bool converts(const CElement& in, CElement::type_t to, CElement& out) {
    return CElement::convert(in, to, out);
}

} // namespace

BOOST_AUTO_TEST_SUITE(toolkit)
BOOST_AUTO_TEST_SUITE(element)

BOOST_AUTO_TEST_CASE(lenient_reads) {
    // Integers keep their bits across signedness; floats truncate and clamp.
    BOOST_TEST(CElement::from_int(-1).to_uint() == std::numeric_limits<uint64_t>::max());
    BOOST_TEST(CElement::from_uint(std::numeric_limits<uint64_t>::max()).to_int() == -1);
    BOOST_TEST(CElement::from_float(-2.9).to_int() == -2);
    BOOST_TEST(CElement::from_float(1e300).to_int() == std::numeric_limits<int64_t>::max());
    BOOST_TEST(CElement::from_float(std::nan("")).to_int() == 0);
    BOOST_TEST(CElement::from_float(1e300).to_uint() == std::numeric_limits<uint64_t>::max());
    BOOST_TEST(CElement::from_string(" 42 ").to_int() == 42);
    BOOST_TEST(CElement::from_string("+7").to_uint() == 7u);
    BOOST_TEST(CElement::from_string("2.5e1").to_float() == 25.0);
    BOOST_TEST(CElement::from_string("abc").to_float() == 0.0);
    BOOST_TEST(CElement::from_string("Yes").to_bool());
    BOOST_TEST(!CElement::from_string("off").to_bool());
    BOOST_TEST(!CElement::from_string("maybe").to_bool());
    BOOST_TEST(CElement::from_float(0.5).to_bool());
    BOOST_TEST(!CElement::from_float(std::nan("")).to_bool());
    BOOST_TEST(CElement::from_time(tv(12, 500000)).to_float() == 12.5);
    BOOST_TEST(CElement::from_float(-0.25).to_timeval().tv_sec == -1);
    BOOST_TEST(CElement::from_float(-0.25).to_timeval().tv_usec == 750000);
    // An empty element reads as nothing.
    CElement empty;
    BOOST_TEST(!empty.has_value());
    BOOST_TEST(!empty.to_bool());
    BOOST_TEST(empty.to_int() == 0);
    BOOST_TEST(empty.str().empty());
    BOOST_TEST(CElement::is_invalid_time(empty.time()));
    BOOST_TEST(CElement::from_int(1).is_numeric());
    BOOST_TEST(!CElement::from_bool(true).is_numeric());
    BOOST_TEST(!CElement::from_string("1").is_numeric());
}

BOOST_AUTO_TEST_CASE(text_forms) {
    BOOST_TEST(CElement::from_bool(true).str() == "true");
    BOOST_TEST(CElement::from_float(0.1).str() == "0.1");
    BOOST_TEST(CElement::from_float(3.0).str() == "3");
    BOOST_TEST(CElement::from_time(tv(951782400, 5)).str() == "2000-02-29T00:00:00.000005Z");
    BOOST_TEST(CElement::from_time(tv(-1, 0)).str() == "1969-12-31T23:59:59.000000Z");
    // Any double prints in a form that reads back to the same bits.
    CRandom& rnd = test_data().random();
    for (int i = 0; i < 2000; ++i) {
        uint64_t bits = (static_cast<uint64_t>(rnd.uniform(0u, 0xffffffffu)) << 32) |
                        rnd.uniform(0u, 0xffffffffu);
        double d;
        std::memcpy(&d, &bits, sizeof d);
        if (std::isnan(d))
            continue;
        const double back = CElement::from_string(CElement::from_float(d).str()).to_float();
        BOOST_TEST(std::memcmp(&back, &d, sizeof d) == 0, "bits " << bits);
    }
}

BOOST_AUTO_TEST_CASE(time_text) {
    timeval t;
    BOOST_TEST(CElement::time_from_string("2000-02-29T00:00:00.000005Z", t));
    BOOST_TEST(t.tv_sec == 951782400);
    BOOST_TEST(t.tv_usec == 5);
    BOOST_TEST(CElement::time_from_string("1970-01-01 00:01:40.5", t));
    BOOST_TEST(t.tv_sec == 100);
    BOOST_TEST(t.tv_usec == 500000);
    BOOST_TEST(CElement::time_from_string("-1.5", t));
    BOOST_TEST(t.tv_sec == -2);
    BOOST_TEST(t.tv_usec == 500000);
    for (const char* bad :
         {"2023-02-29T00:00:00Z", "2024-13-01T00:00:00Z", "2024-01-01T24:00:00Z",
          "2024-01-01T00:00:00.Z", "2024-01-01T00:00:00Zx", "2024-1-01T00:00:00", "", "nan", "inf"})
        BOOST_TEST(!CElement::time_from_string(bad, t), bad);
    // Text and time agree over a wide range, before and after the epoch.
    CRandom& rnd = test_data().random();
    for (int i = 0; i < 2000; ++i) {
        const int64_t sec = static_cast<int64_t>(rnd.uniform(-4e10, 4e10));
        const int64_t usec = rnd.uniform(0u, 999999u);
        if (sizeof(time_t) < 8 && (sec > INT32_MAX || sec < INT32_MIN))
            continue;
        timeval back;
        const tk_string text = CElement::time_to_string(tv(sec, usec));
        BOOST_REQUIRE(CElement::time_from_string(text, back));
        BOOST_TEST(back.tv_sec == sec, text);
        BOOST_TEST(back.tv_usec == usec, text);
    }
}

BOOST_AUTO_TEST_CASE(strict_conversion) {
    CElement out;
    // Accepted, with the converted value.
    BOOST_TEST(converts(CElement::from_uint(7), CElement::TYPE_FLOAT, out));
    BOOST_TEST((out.type() == CElement::TYPE_FLOAT && out.to_float() == 7.0));
    BOOST_TEST(converts(CElement::from_float(2.5), CElement::TYPE_INT, out));
    BOOST_TEST(out.to_int() == 3);
    BOOST_TEST(converts(CElement::from_float(-2.5), CElement::TYPE_INT, out));
    BOOST_TEST(out.to_int() == -3);
    BOOST_TEST(converts(CElement::from_string(" 12 "), CElement::TYPE_UINT, out));
    BOOST_TEST(out.to_uint() == 12u);
    BOOST_TEST(converts(CElement::from_string("1.5e2"), CElement::TYPE_INT, out));
    BOOST_TEST(out.to_int() == 150);
    BOOST_TEST(converts(CElement::from_string("18446744073709551615"), CElement::TYPE_UINT, out));
    BOOST_TEST(out.to_uint() == std::numeric_limits<uint64_t>::max());
    BOOST_TEST(converts(CElement::from_string("ON"), CElement::TYPE_BOOL, out));
    BOOST_TEST(out.to_bool());
    BOOST_TEST(converts(CElement::from_uint(0), CElement::TYPE_BOOL, out));
    BOOST_TEST(!out.to_bool());
    BOOST_TEST(converts(CElement::from_float(1.25), CElement::TYPE_STRING, out));
    BOOST_TEST(out.str() == "1.25");
    BOOST_TEST(converts(CElement::from_int(100), CElement::TYPE_TIME, out));
    BOOST_TEST(out.to_timeval().tv_sec == 100);
    BOOST_TEST(converts(CElement::from_string("1970-01-01T00:00:01Z"), CElement::TYPE_TIME, out));
    BOOST_TEST(out.to_timeval().tv_sec == 1);
    // The stamp travels with the value.
    BOOST_TEST(converts(CElement::from_int(1, tv(5, 6)), CElement::TYPE_FLOAT, out));
    BOOST_TEST(out.time().tv_sec == 5);

    // Refused: out keeps what it had.
    const CElement keep = CElement::from_int(99);
    struct {
        CElement in;
        CElement::type_t to;
    } refused[] = {
        {CElement::from_string("abc"), CElement::TYPE_INT},
        {CElement::from_string("12abc"), CElement::TYPE_FLOAT},
        {CElement::from_string(""), CElement::TYPE_UINT},
        {CElement::from_int(-1), CElement::TYPE_UINT},
        {CElement::from_string("-1"), CElement::TYPE_UINT},
        {CElement::from_uint(std::numeric_limits<uint64_t>::max()), CElement::TYPE_INT},
        {CElement::from_float(1e19), CElement::TYPE_INT},
        {CElement::from_float(std::nan("")), CElement::TYPE_INT},
        {CElement::from_float(std::numeric_limits<double>::infinity()), CElement::TYPE_UINT},
        {CElement::from_float(std::nan("")), CElement::TYPE_BOOL},
        {CElement::from_string("maybe"), CElement::TYPE_BOOL},
        {CElement::from_time(tv(1, 0)), CElement::TYPE_BOOL},
        {CElement::from_bool(true), CElement::TYPE_TIME},
        {CElement::from_string("yesterday"), CElement::TYPE_TIME},
        {CElement(), CElement::TYPE_STRING},
        {CElement::from_int(1), CElement::TYPE_NONE},
    };
    for (const auto& r : refused) {
        out = keep;
        BOOST_TEST(!converts(r.in, r.to, out), r.in.str() << " to " << CElement::type_name(r.to));
        BOOST_TEST(out.to_int() == 99);
    }
}

BOOST_AUTO_TEST_CASE(split_string_and_type_names) {
    std::vector<tk_string> parts;
    CElement::split_string(parts, ";a;;b c;", ';');
    BOOST_TEST(parts == (std::vector<tk_string>{"a", "b c"}), boost::test_tools::per_element());
    CElement::split_string(parts, "", ';');
    BOOST_TEST(parts.empty());
    CElement::type_t back;
    BOOST_TEST(CElement::type_from_name("uint", back));
    BOOST_TEST(back == CElement::TYPE_UINT);
    BOOST_TEST(!CElement::type_from_name("double", back));
    BOOST_TEST(!CElement::type_from_name("none", back));
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(units)

BOOST_AUTO_TEST_CASE(numbers_and_text) {
    BOOST_TEST(kvr_units_str_to_enum("") == KVR_UNITS_NONE);
    BOOST_TEST(kvr_units_str_to_enum("none") == KVR_UNITS_NONE);
    BOOST_TEST(kvr_units_str_to_enum("furlong") == KVR_UNITS_UNKNOWN);
    BOOST_TEST(kvr_units_str_to_enum(nullptr) == KVR_UNITS_UNKNOWN);
    BOOST_TEST(kvr_units_str_to_enum("\xC2\xB0"
                                     "C") == kvr_units_str_to_enum("degC"));
    // Units are case sensitive: milli and mega differ.
    BOOST_TEST(kvr_units_str_to_enum("mW") == KVR_UNITS_UNKNOWN);
    BOOST_TEST(kvr_units_str_to_enum("MW") != KVR_UNITS_UNKNOWN);
    BOOST_TEST(kvr_units_enum_to_str(1000) == nullptr);
    for (const char* u :
         {"V",  "mV",  "kV",  "A",  "mA", "W",  "kW",  "MW", "VA", "kVA",  "var", "kvar",
          "Wh", "kWh", "MWh", "Hz", "s",  "ms", "min", "h",  "%",  "degC", "degF"}) {
        const int n = kvr_units_str_to_enum(u);
        BOOST_TEST(n >= 0, u);
        BOOST_TEST(n != KVR_UNITS_NONE, u);
        BOOST_TEST(tk_string(kvr_units_enum_to_str(n)) == u);
    }
}

BOOST_AUTO_TEST_CASE(ratios) {
    auto ratio = [](const char* from, const char* to) {
        return kvr_units_conversion_ratio(kvr_units_str_to_enum(from), kvr_units_str_to_enum(to));
    };
    BOOST_TEST(ratio("kV", "mV") == 1e6);
    BOOST_TEST(ratio("mV", "kV") == 1e-6);
    BOOST_TEST(ratio("kW", "W") == 1000.0);
    BOOST_TEST(ratio("MWh", "kWh") == 1000.0);
    BOOST_TEST(ratio("mA", "A") == 0.001);
    BOOST_TEST(ratio("h", "min") == 60.0);
    BOOST_TEST(ratio("min", "ms") == 60000.0);
    BOOST_TEST(ratio("V", "V") == 1.0);
    BOOST_TEST(ratio("", "") == 1.0);
    BOOST_TEST(ratio("degC", "degF") == 0.0);
    BOOST_TEST(ratio("degF", "degC") == 0.0);
    BOOST_TEST(ratio("V", "A") == 0.0);
    BOOST_TEST(ratio("W", "VA") == 0.0);
    BOOST_TEST(ratio("", "V") == 0.0);
    BOOST_TEST(kvr_units_conversion_ratio(-1, 0) == 0.0);
    // Every pair that converts converts back.
    for (int a = 0; a < 100; ++a)
        for (int b = 0; b < 100; ++b) {
            const double r = kvr_units_conversion_ratio(a, b);
            if (r != 0.0)
                BOOST_TEST(r * kvr_units_conversion_ratio(b, a) == 1.0,
                           boost::test_tools::tolerance(1e-12));
        }
}

BOOST_AUTO_TEST_SUITE_END()
BOOST_AUTO_TEST_SUITE_END()
