#include "mapping_test_util.h"

#include <boost/test/unit_test.hpp>

#include <cmath>
#include <utility>
#include <vector>

using toolkit::CElement;

namespace {

const auto U = [](uint64_t v) { return CElement::from_uint(v); };
const auto I = [](int64_t v) { return CElement::from_int(v); };
const auto F = [](double v) { return CElement::from_float(v); };
const auto S = [](const char* v) { return CElement::from_string(v); };
const auto B = [](bool v) { return CElement::from_bool(v); };
const CElement none;
const char* const n = nullptr;

} // namespace

BOOST_AUTO_TEST_SUITE(mapping)

BOOST_AUTO_TEST_CASE(integer_layouts) {
    // Every size and bit offset an integer may have, both ways, signed or not.
    const struct {
        const char* layout;
        uint32_t value;
        regvec_t regs;
    } cases[] = {
        {" Size=2", 0x1234, {0x1234}},
        {" Size=3", 0x123456, {0x1234, 0x5600}},
        {" Size=4", 0x12345678, {0x1234, 0x5678}},
        {" Size=1 BitOffset=8", 0x12, {0x0012}},
        {" Size=3 BitOffset=8", 0x123456, {0x0012, 0x3456}},
        {" Size=4 BitOffset=8", 0x12345678, {0x0012, 0x3456, 0x7800}},
    };
    for (const auto& c : cases) {
        check({("UINT" + std::string(c.layout)).c_str(), n, U(c.value), c.regs, U(c.value)});
        check({("INT" + std::string(c.layout)).c_str(), n, I(c.value), c.regs, I(c.value)});
    }
}

BOOST_AUTO_TEST_CASE(translations) {
    const CTranslation cases[] = {
        // The field keeps the low bytes of a wider value, ignores the bits around it on the
        // way back and extends its sign.
        {"UINT Size=2", n, U(0x12345), {0x2345}, none},
        {"UINT Size=1 BitOffset=8", n, none, {0xAB12}, U(0x12)},
        {"INT Size=2", n, I(-1), {0xFFFF}, I(-1)},
        {"INT Size=2", n, none, {0x7FFF}, I(32767)},
        {"UINT Size=2", n, none, {0xFFFF}, U(65535)},
        {"INT Size=3", n, I(-2), {0xFFFF, 0xFE00}, I(-2)},
        {"INT Size=3", n, none, {0x7FFF, 0xFF00}, I(0x7FFFFF)},
        {"INT Size=1 BitOffset=8", n, none, {0xAB80}, I(-128)},
        {"INT Size=4", n, none, {0x8000, 0x0000}, I(INT32_MIN)},
        // Scaled and truncated toward zero; a negative reading of an unsigned register
        // becomes its magnitude, and a float beyond 32 bits saturates.
        {"UINT Size=2 Multiplier=10", n, U(12), {120}, U(12)},
        {"UINT Size=2 Multiplier=10", n, none, {125}, U(12)},
        {"UINT Size=2 Multiplier=10", n, F(-0.37), {3}, none},
        {"UINT Size=2", n, F(-3.7), {3}, none},
        {"UINT Size=2", n, F(7.9), {7}, none},
        {"UINT Size=4", n, F(3e9), {0xB2D0, 0x5E00}, none},
        {"UINT Size=4", n, F(1e12), {0xFFFF, 0xFFFF}, none},
        {"INT Size=2 Multiplier=10 Divider=4", n, I(-12), {0xFFE2}, I(-12)},
        {"INT Size=2 Multiplier=10 Divider=4", n, F(-3.9), {0xFFF7}, none},
        {"UINT Size=2 Divider=0x4 Multiplier=3", n, U(100), {75}, U(100)},
        // Unsigned values with a units ratio skip the multiplier; the ratio applies both ways,
        // and only with units on both sides of one dimension.
        {"UINT Size=4 Units=mV Multiplier=10", "V", U(12), {0, 12000}, none},
        {"UINT Size=4 Units=mV Multiplier=10", "V", none, {0, 50}, U(5000)},
        {"UINT Size=4 Units=mV Multiplier=10", n, U(12), {0, 120}, none},
        {"UINT Size=4 Units=mV Multiplier=10", "A", U(12), {0, 120}, none},
        {"UINT Size=4 Units=mV Multiplier=10", "degC", U(12), {0, 120}, none},
        {"INT Size=4 Units=mV Multiplier=2", "V", I(-3), {0xFFFF, 0xE890}, none},
        {"INT Size=4 Units=mV Multiplier=2", "V", none, {0xFFFF, 0xE890}, I(-3000000)},
        {"INT Size=4 Units=mV Multiplier=2", "V", F(-1.5), {0xFFFF, 0xF448}, none},
        // Floats; toward the registers parameter -> mapping units, back the other way.
        {"FLOAT Size=4", n, F(-2.5), {0xC020, 0x0000}, F(-2.5)},
        {"FLOAT Size=4", n, I(3), {0x4040, 0x0000}, none},
        {"FLOAT Size=4", n, none, {0x7FC0, 0x0000}, F(NAN)},
        {"FLOAT Size=4 BitOffset=8", n, F(1.0), {0x003F, 0x8000, 0x0000}, none},
        {"FLOAT Size=4 BitOffset=8", n, none, {0xFF3F, 0x8000, 0x00FF}, F(1.0)},
        {"FLOAT Size=4 Multiplier=10", n, F(1.5), {0x4170, 0x0000}, F(1.5)},
        {"FLOAT Size=4 Divider=4", n, F(10.0), {0x4020, 0x0000}, F(10.0)},
        {"FLOAT Size=4 Units=kW", "W", F(1500.0), {0x3FC0, 0x0000}, F(1500.0)},
        {"FLOAT Size=4 Units=kW", n, none, {0x3FC0, 0x0000}, F(1.5)},
        // Out of float range: an infinity, not undefined behaviour.
        {"FLOAT Size=4 Units=kW", n, F(1e300), {0x7F80, 0x0000}, none},
        // An odd size holds one byte more on the way out; reading takes "Size" bytes up to
        // the first zero.
        {"STRING Size=6", n, S("AB"), {0x4142, 0, 0}, S("AB")},
        {"STRING Size=6", n, S(""), {0, 0, 0}, S("")},
        {"STRING Size=6", n, none, {0x4142, 0x4344, 0x4546}, S("ABCDEF")},
        {"STRING Size=1", n, S("AB"), {0x4142}, S("A")},
        {"STRING Size=3", n, S("ABCDEF"), {0x4142, 0x4344}, S("ABC")},
        {"STRING Size=2 BitOffset=8", n, S("ABC"), {0x0041, 0x4243}, S("AB")},
        {"STRING Size=3 BitOffset=8", n, S("ABCD"), {0x0041, 0x4243}, none},
        {"STRING Size=3 BitOffset=8", n, none, {0x5841, 0x4243}, S("ABC")},
        // The top bit of the high byte (0) or of the low byte (8); the other bits do not count.
        {"BOOL", n, B(true), {0x8000}, B(true)},
        {"BOOL", n, B(false), {0}, none},
        {"BOOL", n, none, {0x7FFF}, B(false)},
        {"BOOL BitOffset=8", n, B(true), {0x0080}, B(true)},
        {"BOOL BitOffset=8", n, B(false), {0}, none},
        {"BOOL BitOffset=8", n, none, {0xFF7F}, B(false)},
        {"BOOL Size=2", n, I(5), {0x8000}, B(true)},
        // The swaps are on for any text but "" and "0".
        {"UINT Size=4 Endianness= WordOrder=0", n, U(0x11223344), {0x1122, 0x3344}, none},
        {"UINT Size=4 Endianness=7 WordOrder=true", n, U(0x11223344), {0x4433, 0x2211}, none},
    };
    for (const CTranslation& c : cases)
        check(c);
    BOOST_TEST(translator("STRING Size=0xffff")->reg_count() == 32768u);
    BOOST_TEST(translator("STRING Size=65535 BitOffset=8")->reg_count() == 32768u);
}

BOOST_AUTO_TEST_CASE(swaps_over_offset_layouts) {
    // The bytes of every register are exchanged first, then the registers reversed; reading
    // undoes both. Odd register counts and offset 8 leave no pair to swap by accident.
    const struct {
        const char* mapping;
        CElement value;
        regvec_t natural, bytes, words, both;
    } cases[] = {
        {"UINT Size=4 BitOffset=8",
         U(0x11223344),
         {0x0011, 0x2233, 0x4400},
         {0x1100, 0x3322, 0x0044},
         {0x4400, 0x2233, 0x0011},
         {0x0044, 0x3322, 0x1100}},
        {"INT Size=3",
         I(-2),
         {0xFFFF, 0xFE00},
         {0xFFFF, 0x00FE},
         {0xFE00, 0xFFFF},
         {0x00FE, 0xFFFF}},
        {"FLOAT Size=4 BitOffset=8",
         F(1.0),
         {0x003F, 0x8000, 0x0000},
         {0x3F00, 0x0080, 0x0000},
         {0x0000, 0x8000, 0x003F},
         {0x0000, 0x0080, 0x3F00}},
        {"STRING Size=5 BitOffset=8",
         S("ABCDE"),
         {0x0041, 0x4243, 0x4445},
         {0x4100, 0x4342, 0x4544},
         {0x4445, 0x4243, 0x0041},
         {0x4544, 0x4342, 0x4100}},
        {"BOOL BitOffset=8", B(true), {0x0080}, {0x8000}, {0x0080}, {0x8000}},
    };
    for (const auto& c : cases) {
        const std::pair<const char*, const regvec_t*> variants[] = {{"=0 WordOrder=0", &c.natural},
                                                                    {"=1 WordOrder=0", &c.bytes},
                                                                    {"=0 WordOrder=1", &c.words},
                                                                    {"=1 WordOrder=1", &c.both}};
        for (const auto& v : variants)
            check({(c.mapping + std::string(" Endianness") + v.first).c_str(), n, c.value,
                   *v.second, c.value});
    }
}

BOOST_AUTO_TEST_CASE(profile_rows) {
    typedef CProfileMapping P;
    const struct {
        const char* mapping;
        CElement value;
        const char* units; // the parameter's, as the store names them
        std::vector<std::pair<P::field_t, const char*>> fields;
    } cases[] = {
        {"INT Size=2 Multiplier=10 Units=mV",
         I(-3),
         "V",
         {{P::TYPE, "INT"},
          {P::MULTIPLIER, "10"},
          {P::DIVIDER, ""},
          {P::UNITS, "mV"},
          {P::MODBUS_VALUE, "-30000"}}},
        // Without a conversion the registers carry the store's units.
        {"INT Size=2 Multiplier=10 Units=mV", none, "A", {{P::UNITS, "A"}, {P::MODBUS_VALUE, ""}}},
        {"UINT Size=2 Divider=3", U(7), "", {{P::TYPE, "UINT"}, {P::DIVIDER, "3"}}},
        {"FLOAT Size=4 Divider=4",
         F(0.5),
         "Hz",
         {{P::TYPE, "FLOAT"},
          {P::DIVIDER, "4.0"},
          {P::MULTIPLIER, ""},
          {P::MODBUS_VALUE, "0.125"}}},
        {"FLOAT Size=4 Divider=4", F(NAN), "", {{P::MODBUS_VALUE, "NaN"}}},
        {"FLOAT Size=4 Divider=4", F(0.4), "", {{P::MODBUS_VALUE, "0.1"}}},
        {"BOOL", none, "", {{P::TYPE, "BOOLEAN"}, {P::MODBUS_VALUE, ""}}},
        {"STRING Size=2", S("ABC"), "", {{P::TYPE, "STRING"}, {P::MODBUS_VALUE, "AB"}}},
        {"TIME DateSpec=YYmd Timestamp=1",
         none,
         "",
         {{P::TYPE, "DATE"}, {P::IS_TIMESTAMP, "Yes"}, {P::DATE_SPEC, "YYmd"}}},
    };
    for (const auto& c : cases) {
        const P row = translator(c.mapping)->reverse_map(c.value, c.units, held_in(c.units));
        for (const auto& f : c.fields)
            BOOST_TEST(row[f.first] == f.second, c.mapping << " field " << f.first);
    }
}

BOOST_AUTO_TEST_SUITE_END()
