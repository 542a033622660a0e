// Seeded random round trips: a value written to registers and read back is the value, for
// every translator over random layouts, swaps and scales. A failure prints the seed (-S).
#include "mapping_test_util.h"
#include "modbus/map/register_mapping.h"
#include "test/global_test_data.h"

#include <boost/test/unit_test.hpp>

#include <cmath>
#include <cstring>
#include <string>

using toolkit::CElement;

namespace {

const CModbusParamDynamicConfig no_units;
const int rounds = 20000;

struct CCase {
    toolkit::node_map_t node;
    CElement value;
    std::string what; // shown when the round trip fails
};

void add(CCase& c, const char* key, const std::string& value) {
    c.node.emplace(key, value);
    c.what += std::string(key) + "=" + value + " ";
}

CCase random_integer(CRandom& rng) {
    CCase c;
    const bool is_signed = rng.bernoulli(0.5);
    add(c, "ExternalValueType", is_signed ? "DATATYPE_INT" : "DATATYPE_UINT");
    // Every size and offset but the two unsupported layouts.
    static const unsigned layouts[][2] = {{2, 0}, {3, 0}, {4, 0}, {1, 8}, {3, 8}, {4, 8}};
    const auto& layout = layouts[rng.uniform(0u, 5u)];
    add(c, "Size", std::to_string(layout[0]));
    add(c, "BitOffset", std::to_string(layout[1]));
    // Values that are multiples of the divider and whose scaled form fits the field.
    const int64_t multiplier = rng.bernoulli(0.3) ? rng.uniform(1u, 100u) : 1;
    const int64_t divider = rng.bernoulli(0.3) ? rng.uniform(1u, 100u) : 1;
    if (multiplier > 1)
        add(c, "Multiplier", std::to_string(multiplier));
    if (divider > 1)
        add(c, "Divider", std::to_string(divider));
    const unsigned bits = 8 * layout[0];
    const int64_t field_max = is_signed ? (int64_t(1) << (bits - 1)) - 1 : (int64_t(1) << bits) - 1;
    const int64_t field_min = is_signed ? -field_max - 1 : 0;
    // The intermediate value * multiplier * divider must stay within 32 bits as well.
    const int64_t limit32 = is_signed ? INT32_MAX : UINT32_MAX;
    const int64_t kmax = std::min(field_max / multiplier, limit32 / (multiplier * divider));
    const int64_t kmin = is_signed ? -std::min(-field_min / multiplier, kmax) : 0;
    const int64_t k = kmin + static_cast<int64_t>(rng.uniform(0.0, 1.0) * double(kmax - kmin));
    const int64_t v = k * divider;
    c.value = is_signed ? CElement::from_int(v) : CElement::from_uint(static_cast<uint64_t>(v));
    c.what += "value=" + std::to_string(v);
    return c;
}

CCase random_float(CRandom& rng) {
    CCase c;
    add(c, "ExternalValueType", "DATATYPE_FLOAT");
    add(c, "Size", "4");
    add(c, "BitOffset", rng.bernoulli(0.5) ? "8" : "0");
    // Powers of two scale without rounding.
    if (rng.bernoulli(0.3))
        add(c, "Multiplier", std::to_string(1u << rng.uniform(0u, 10u)));
    if (rng.bernoulli(0.3))
        add(c, "Divider", std::to_string(1u << rng.uniform(0u, 10u)));
    // Normal numbers well inside the float range, so that the scaling is exact.
    const double mantissa = rng.bernoulli(0.5) ? rng.uniform(0.5, 1.0) : -rng.uniform(0.5, 1.0);
    const int exponent = static_cast<int>(rng.uniform(0u, 200u)) - 100;
    const float v = static_cast<float>(std::ldexp(mantissa, exponent));
    c.value = CElement::from_float(v);
    c.what += "value=" + std::to_string(v);
    return c;
}

CCase random_string(CRandom& rng) {
    CCase c;
    add(c, "ExternalValueType", "DATATYPE_STRING");
    const unsigned size = rng.uniform(1u, 20u);
    add(c, "Size", std::to_string(size));
    add(c, "BitOffset", rng.bernoulli(0.5) ? "8" : "0");
    std::string text(rng.uniform(0u, 2 * size + 2), ' ');
    for (char& ch : text)
        ch = static_cast<char>(rng.uniform(1u, 255u));
    c.value = CElement::from_string(text);
    c.what += "length=" + std::to_string(text.size());
    return c;
}

CCase random_bool(CRandom& rng) {
    CCase c;
    add(c, "ExternalValueType", "DATATYPE_BOOL");
    add(c, "BitOffset", rng.bernoulli(0.5) ? "8" : "0"); // the two offsets a bit may have
    c.value = CElement::from_bool(rng.bernoulli(0.5));
    return c;
}

CCase random_time(CRandom& rng) {
    CCase c;
    add(c, "ExternalValueType", "DATATYPE_TIME");
    // Date specs that name every field down to the millisecond; years from 2000 to 2037,
    // in the current century as "y" needs and within a 32-bit time_t.
    static const char* specs[][2] = {
        {"ymdHQQM", "0"}, {"MymdHQQ", "8"}, {"ymdHMSqq", "0"}, {"dmyHMQQ", "8"}};
    const auto& spec = specs[rng.uniform(0u, 3u)];
    add(c, "DateSpec", spec[0]);
    add(c, "BitOffset", spec[1]);
    const time_t century = 946684800; // 2000-01-01
    const double span = 86400.0 * 365 * 38;
    timeval tv{static_cast<time_t>(century + rng.uniform(0.0, span)),
               static_cast<suseconds_t>(rng.uniform(0u, 999u) * 1000)};
    c.value = CElement::from_time(tv);
    c.what += "time=" + std::to_string(static_cast<long long>(tv.tv_sec));
    return c;
}

bool same(const CElement& a, const CElement& b) {
    if (a.type() != b.type())
        return false;
    switch (a.type()) {
    case CElement::TYPE_FLOAT:
        return a.to_float() == b.to_float();
    case CElement::TYPE_STRING:
        return a.str() == b.str();
    case CElement::TYPE_TIME:
        return a.to_timeval().tv_sec == b.to_timeval().tv_sec &&
               a.to_timeval().tv_usec == b.to_timeval().tv_usec;
    case CElement::TYPE_INT:
        return a.to_int() == b.to_int();
    default:
        return a.to_uint() == b.to_uint();
    }
}

} // namespace

BOOST_AUTO_TEST_SUITE(mapping)

BOOST_AUTO_TEST_CASE(random_round_trips) {
    const CUtcZone zone;
    CRandom& rng = test_data().random();
    CCase (*const makers[])(CRandom&) = {random_integer, random_float, random_string, random_bool,
                                         random_time};
    unsigned failures = 0;
    for (int i = 0; i < rounds && failures < 10; ++i) {
        CCase c = makers[rng.uniform(0u, 4u)](rng);
        if (rng.bernoulli(0.5))
            add(c, "Endianness", "1");
        if (rng.bernoulli(0.5))
            add(c, "WordOrder", "1");
        const auto m = CRegisterMapping::create(c.node);
        const regvec_t regs = to_regs(*m, c.value, no_units);
        CElement back = from_regs(*m, regs, no_units);
        CElement expected = c.value;
        if (c.value.is_string()) // "Size" bytes at most, up to the first zero byte
            expected = CElement::from_string(c.value.str().substr(0, m->size()));
        if (!same(back, expected)) {
            ++failures;
            BOOST_ERROR("round trip of " << c.what << " gave " << back.str());
        }
        BOOST_TEST(regs.size() == (c.value.is_bool() ? 1u : m->reg_count()));
    }
}

BOOST_AUTO_TEST_SUITE_END()
