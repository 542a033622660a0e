#include "mapping_test_util.h"
#include "modbus/map/register_mapping.h"
#include "util/error.h"

#include <boost/test/unit_test.hpp>

#include <cmath>

using toolkit::CElement;

namespace {

const CModbusParamDynamicConfig no_units;

CModbusParamDynamicConfig held_in(const char* units) {
    return CModbusParamDynamicConfig(false, kvr_units_str_to_enum(units));
}

std::unique_ptr<CRegisterMapping>
translator(std::initializer_list<std::pair<const char*, const char*>> keys) {
    return CRegisterMapping::create(make_node(keys));
}

std::unique_ptr<CRegisterMapping> integer(const char* type, const char* size, const char* offset) {
    return translator({{"ExternalValueType", type}, {"Size", size}, {"BitOffset", offset}});
}

} // namespace

BOOST_AUTO_TEST_SUITE(mapping)

BOOST_AUTO_TEST_CASE(integer_layouts) {
    const struct {
        const char* size;
        const char* offset;
        uint32_t value;
        regvec_t regs;
    } cases[] = {
        {"2", "0", 0x1234, {0x1234}},
        {"3", "0", 0x123456, {0x1234, 0x5600}},
        {"4", "0", 0x12345678, {0x1234, 0x5678}},
        {"1", "8", 0x12, {0x0012}},
        {"3", "8", 0x123456, {0x0012, 0x3456}},
        {"4", "8", 0x12345678, {0x0012, 0x3456, 0x7800}},
    };
    for (const auto& c : cases) {
        for (const char* type : {"DATATYPE_UINT", "DATATYPE_INT"}) {
            const auto m = integer(type, c.size, c.offset);
            BOOST_TEST(m->reg_count() == c.regs.size());
            BOOST_TEST(to_regs(*m, CElement::from_uint(c.value), no_units) == c.regs,
                       type << " size " << c.size << " offset " << c.offset);
            BOOST_TEST(from_regs(*m, c.regs, no_units).to_uint() == c.value);
        }
    }
    // The field keeps the low bytes of a wider value.
    BOOST_TEST(to_regs(*integer("DATATYPE_UINT", "2", "0"), CElement::from_uint(0x12345),
                       no_units) == regvec_t{0x2345});
    // Bits outside the field are ignored on the way back.
    BOOST_TEST(from_regs(*integer("DATATYPE_UINT", "1", "8"), {0xAB12}, no_units).to_uint() ==
               0x12u);

    // The two layouts the translation cannot place are refused when built, so a mapping
    // file cannot carry them to a read or write.
    BOOST_CHECK_THROW(integer("DATATYPE_UINT", "1", "0"), CError);
    BOOST_CHECK_THROW(integer("DATATYPE_INT", "2", "8"), CError);
    // Beyond 4 bytes a written value would be cut to 32 bits without a word.
    for (const char* size : {"5", "6", "8", "99"})
        BOOST_CHECK_THROW(integer("DATATYPE_UINT", size, "0"), CError);
}

BOOST_AUTO_TEST_CASE(integer_signs) {
    const auto s16 = integer("DATATYPE_INT", "2", "0");
    const auto u16 = integer("DATATYPE_UINT", "2", "0");
    const CElement back = from_regs(*s16, {0xFFFF}, no_units);
    BOOST_TEST(back.type() == CElement::TYPE_INT);
    BOOST_TEST(back.to_int() == -1);
    BOOST_TEST(to_regs(*s16, CElement::from_int(-1), no_units) == regvec_t{0xFFFF});
    BOOST_TEST(from_regs(*s16, {0x7FFF}, no_units).to_int() == 32767);
    const CElement ubig = from_regs(*u16, {0xFFFF}, no_units);
    BOOST_TEST(ubig.type() == CElement::TYPE_UINT);
    BOOST_TEST(ubig.to_uint() == 65535u);

    const auto s24 = integer("DATATYPE_INT", "3", "0");
    BOOST_TEST(to_regs(*s24, CElement::from_int(-2), no_units) == (regvec_t{0xFFFF, 0xFE00}));
    BOOST_TEST(from_regs(*s24, {0xFFFF, 0xFE00}, no_units).to_int() == -2);
    BOOST_TEST(from_regs(*s24, {0x7FFF, 0xFF00}, no_units).to_int() == 0x7FFFFF);
    BOOST_TEST(from_regs(*integer("DATATYPE_INT", "1", "8"), {0xAB80}, no_units).to_int() == -128);
    const auto s32 = integer("DATATYPE_INT", "4", "0");
    BOOST_TEST(from_regs(*s32, {0x8000, 0x0000}, no_units).to_int() == INT32_MIN);
}

BOOST_AUTO_TEST_CASE(integer_scaling) {
    const auto by10 =
        translator({{"ExternalValueType", "DATATYPE_UINT"}, {"Size", "2"}, {"Multiplier", "10"}});
    BOOST_TEST(to_regs(*by10, CElement::from_uint(12), no_units) == regvec_t{120});
    BOOST_TEST(from_regs(*by10, {125}, no_units).to_uint() == 12u);
    // A negative reading of an unsigned register becomes its magnitude.
    BOOST_TEST(to_regs(*by10, CElement::from_float(-0.37), no_units) == regvec_t{3});

    const auto u = translator({{"ExternalValueType", "DATATYPE_UINT"}, {"Size", "2"}});
    BOOST_TEST(to_regs(*u, CElement::from_float(-3.7), no_units) == regvec_t{3});
    BOOST_TEST(to_regs(*u, CElement::from_float(7.9), no_units) == regvec_t{7});
    const auto u32 = translator({{"ExternalValueType", "DATATYPE_UINT"}, {"Size", "4"}});
    BOOST_TEST(to_regs(*u32, CElement::from_float(3e9), no_units) == (regvec_t{0xB2D0, 0x5E00}));
    BOOST_TEST(to_regs(*u32, CElement::from_float(1e12), no_units) == (regvec_t{0xFFFF, 0xFFFF}));

    const auto s = translator({{"ExternalValueType", "DATATYPE_INT"},
                               {"Size", "2"},
                               {"Multiplier", "10"},
                               {"Divider", "4"}});
    BOOST_TEST(to_regs(*s, CElement::from_int(-12), no_units) == regvec_t{0xFFE2}); // -30
    BOOST_TEST(from_regs(*s, {0xFFE2}, no_units).to_int() == -12);
    BOOST_TEST(to_regs(*s, CElement::from_float(-3.7), no_units) == regvec_t{0xFFF7}); // -9

    const auto div = translator({{"ExternalValueType", "DATATYPE_UINT"},
                                 {"Size", "2"},
                                 {"Divider", "0x4"},
                                 {"Multiplier", "3"}});
    BOOST_TEST(to_regs(*div, CElement::from_uint(100), no_units) == regvec_t{75});
    BOOST_TEST(from_regs(*div, {75}, no_units).to_uint() == 100u);
}

BOOST_AUTO_TEST_CASE(integer_units) {
    const auto mv = translator({{"ExternalValueType", "DATATYPE_UINT"},
                                {"Size", "4"},
                                {"Units", "mV"},
                                {"Multiplier", "10"}});
    // Unsigned values with a units ratio skip the multiplier; the ratio applies both ways.
    BOOST_TEST(to_regs(*mv, CElement::from_uint(12), held_in("V")) == (regvec_t{0, 12000}));
    BOOST_TEST(from_regs(*mv, {0, 50}, held_in("V")).to_uint() == 5000u);
    // No conversion without units on both sides, or between dimensions.
    BOOST_TEST(to_regs(*mv, CElement::from_uint(12), no_units) == (regvec_t{0, 120}));
    BOOST_TEST(to_regs(*mv, CElement::from_uint(12), held_in("A")) == (regvec_t{0, 120}));
    BOOST_TEST(to_regs(*mv, CElement::from_uint(12), held_in("degC")) == (regvec_t{0, 120}));

    const auto smv = translator({{"ExternalValueType", "DATATYPE_INT"},
                                 {"Size", "4"},
                                 {"Units", "mV"},
                                 {"Multiplier", "2"}});
    BOOST_TEST(to_regs(*smv, CElement::from_int(-3), held_in("V")) ==
               (regvec_t{0xFFFF, 0xE890})); // -6000
    BOOST_TEST(from_regs(*smv, {0xFFFF, 0xE890}, held_in("V")).to_int() == -3000000);
    BOOST_TEST(to_regs(*smv, CElement::from_float(-1.5), held_in("V")) ==
               (regvec_t{0xFFFF, 0xF448})); // -3000
}

BOOST_AUTO_TEST_CASE(float_patterns) {
    const auto f = translator({{"ExternalValueType", "DATATYPE_FLOAT"}, {"Size", "4"}});
    const auto f8 =
        translator({{"ExternalValueType", "DATATYPE_FLOAT"}, {"Size", "4"}, {"BitOffset", "8"}});
    BOOST_TEST(to_regs(*f, CElement::from_float(1.0), no_units) == (regvec_t{0x3F80, 0x0000}));
    BOOST_TEST(to_regs(*f, CElement::from_float(-2.5), no_units) == (regvec_t{0xC020, 0x0000}));
    BOOST_TEST(to_regs(*f, CElement::from_int(3), no_units) == (regvec_t{0x4040, 0x0000}));
    BOOST_TEST(from_regs(*f, {0xC020, 0x0000}, no_units).to_float() == -2.5);
    BOOST_TEST(from_regs(*f, {0x3F80, 0x0000}, no_units).is_float());
    BOOST_TEST(std::isnan(from_regs(*f, {0x7FC0, 0x0000}, no_units).to_float()));
    BOOST_TEST(f8->reg_count() == 3u);
    BOOST_TEST(to_regs(*f8, CElement::from_float(1.0), no_units) ==
               (regvec_t{0x003F, 0x8000, 0x0000}));
    BOOST_TEST(from_regs(*f8, {0xFF3F, 0x8000, 0x00FF}, no_units).to_float() == 1.0);

    const struct {
        const char* bytes;
        const char* words;
        regvec_t regs;
    } swaps[] = {
        {"0", "1", {0x0000, 0x3F80}},
        {"1", "0", {0x803F, 0x0000}},
        {"1", "1", {0x0000, 0x803F}},
    };
    for (const auto& s : swaps) {
        const auto m = translator({{"ExternalValueType", "DATATYPE_FLOAT"},
                                   {"Size", "4"},
                                   {"Endianness", s.bytes},
                                   {"WordOrder", s.words}});
        BOOST_TEST(to_regs(*m, CElement::from_float(1.0), no_units) == s.regs);
        BOOST_TEST(from_regs(*m, s.regs, no_units).to_float() == 1.0);
    }
}

BOOST_AUTO_TEST_CASE(float_scaling_and_units) {
    const auto by10 =
        translator({{"ExternalValueType", "DATATYPE_FLOAT"}, {"Size", "4"}, {"Multiplier", "10"}});
    BOOST_TEST(to_regs(*by10, CElement::from_float(1.5), no_units) ==
               (regvec_t{0x4170, 0x0000})); // 15.0
    BOOST_TEST(from_regs(*by10, {0x4170, 0x0000}, no_units).to_float() == 1.5);
    const auto by4 =
        translator({{"ExternalValueType", "DATATYPE_FLOAT"}, {"Size", "4"}, {"Divider", "4"}});
    BOOST_TEST(to_regs(*by4, CElement::from_float(10.0), no_units) ==
               (regvec_t{0x4020, 0x0000})); // 2.5
    BOOST_TEST(from_regs(*by4, {0x4020, 0x0000}, no_units).to_float() == 10.0);

    // Toward the registers parameter -> mapping units, back mapping -> parameter units.
    const auto kw =
        translator({{"ExternalValueType", "DATATYPE_FLOAT"}, {"Size", "4"}, {"Units", "kW"}});
    BOOST_TEST(to_regs(*kw, CElement::from_float(1500.0), held_in("W")) ==
               (regvec_t{0x3FC0, 0x0000})); // 1.5
    BOOST_TEST(from_regs(*kw, {0x3FC0, 0x0000}, held_in("W")).to_float() == 1500.0);
    BOOST_TEST(from_regs(*kw, {0x3FC0, 0x0000}, no_units).to_float() == 1.5);
    // Out of float range: an infinity, not undefined behaviour.
    BOOST_TEST(to_regs(*kw, CElement::from_float(1e300), no_units) == (regvec_t{0x7F80, 0x0000}));
}

BOOST_AUTO_TEST_CASE(string_layouts) {
    const auto s6 = translator({{"ExternalValueType", "DATATYPE_STRING"}, {"Size", "6"}});
    BOOST_TEST(to_regs(*s6, CElement::from_string("AB"), no_units) == (regvec_t{0x4142, 0, 0}));
    BOOST_TEST(from_regs(*s6, {0x4142, 0, 0}, no_units).str() == "AB");
    BOOST_TEST(to_regs(*s6, CElement::from_string(""), no_units) == (regvec_t{0, 0, 0}));
    BOOST_TEST(from_regs(*s6, {0, 0, 0}, no_units).str() == "");
    BOOST_TEST(from_regs(*s6, {0x4142, 0x4344, 0x4546}, no_units).str() == "ABCDEF");

    // An odd size holds one byte more on the way out; reading takes "Size" bytes.
    const auto s3 = translator({{"ExternalValueType", "DATATYPE_STRING"}, {"Size", "3"}});
    BOOST_TEST(to_regs(*s3, CElement::from_string("ABCDEF"), no_units) ==
               (regvec_t{0x4142, 0x4344}));
    BOOST_TEST(from_regs(*s3, {0x4142, 0x4344}, no_units).str() == "ABC");

    const auto s3o8 =
        translator({{"ExternalValueType", "DATATYPE_STRING"}, {"Size", "3"}, {"BitOffset", "8"}});
    BOOST_TEST(to_regs(*s3o8, CElement::from_string("ABCD"), no_units) ==
               (regvec_t{0x0041, 0x4243}));
    BOOST_TEST(from_regs(*s3o8, {0x5841, 0x4243}, no_units).str() == "ABC");

    const auto swapped =
        translator({{"ExternalValueType", "DATATYPE_STRING"}, {"Size", "4"}, {"Endianness", "1"}});
    BOOST_TEST(to_regs(*swapped, CElement::from_string("ABCD"), no_units) ==
               (regvec_t{0x4241, 0x4443}));
    BOOST_TEST(from_regs(*swapped, {0x4241, 0x4443}, no_units).str() == "ABCD");
    BOOST_TEST(CElement::is_invalid_time(from_regs(*swapped, {0, 0}, no_units).time()));
}

BOOST_AUTO_TEST_CASE(bit_positions) {
    // The top bit of the high byte (0) or of the low byte (8); no other offset has a
    // register count, so the others are refused when built.
    for (unsigned offset = 0; offset < 16; ++offset) {
        const std::string text = std::to_string(offset);
        if (offset != 0 && offset != 8) {
            BOOST_CHECK_THROW(
                translator({{"ExternalValueType", "DATATYPE_BOOL"}, {"BitOffset", text.c_str()}}),
                CError);
            continue;
        }
        const auto m =
            translator({{"ExternalValueType", "DATATYPE_BOOL"}, {"BitOffset", text.c_str()}});
        const mbreg_t bit = static_cast<mbreg_t>(0x8000u >> offset);
        BOOST_TEST(to_regs(*m, CElement::from_bool(true), no_units) == regvec_t{bit});
        BOOST_TEST(to_regs(*m, CElement::from_bool(false), no_units) == regvec_t{0});
        BOOST_TEST(from_regs(*m, {bit}, no_units).to_bool());
        BOOST_TEST(!from_regs(*m, {static_cast<mbreg_t>(~bit)}, no_units).to_bool());
    }
    const auto b = translator({{"ExternalValueType", "DATATYPE_BOOL"}, {"Size", "2"}});
    BOOST_TEST(to_regs(*b, CElement::from_int(5), no_units) == regvec_t{0x8000});
    BOOST_TEST(from_regs(*b, {0x8000}, no_units).is_bool());
}

BOOST_AUTO_TEST_CASE(profile_rows) {
    const CProfileMapping blank;
    BOOST_TEST(blank[CProfileMapping::DISCRETE] == "No");
    BOOST_TEST(blank[CProfileMapping::TYPE] == "INVALID");
    BOOST_TEST(blank[CProfileMapping::IS_TIMESTAMP] == "No");
    BOOST_TEST(blank[CProfileMapping::PARAMETER_NAME] == "");

    const auto i = translator({{"ExternalValueType", "DATATYPE_INT"},
                               {"Size", "2"},
                               {"Multiplier", "10"},
                               {"Units", "mV"}});
    CProfileMapping row = i->reverse_map(CElement::from_int(-3), "V", held_in("V"));
    BOOST_TEST(row[CProfileMapping::TYPE] == "INT");
    BOOST_TEST(row[CProfileMapping::MULTIPLIER] == "10");
    BOOST_TEST(row[CProfileMapping::DIVIDER] == "");
    BOOST_TEST(row[CProfileMapping::UNITS] == "mV");
    BOOST_TEST(row[CProfileMapping::MODBUS_VALUE] == "-30000");
    // Without a conversion the registers carry the store's units.
    row = i->reverse_map(CElement(), "A", held_in("A"));
    BOOST_TEST(row[CProfileMapping::UNITS] == "A");
    BOOST_TEST(row[CProfileMapping::MODBUS_VALUE] == "");

    const auto f =
        translator({{"ExternalValueType", "DATATYPE_FLOAT"}, {"Size", "4"}, {"Divider", "4"}});
    row = f->reverse_map(CElement::from_float(0.5), "Hz", no_units);
    BOOST_TEST(row[CProfileMapping::TYPE] == "FLOAT");
    BOOST_TEST(row[CProfileMapping::DIVIDER] == "4.0");
    BOOST_TEST(row[CProfileMapping::MULTIPLIER] == "");
    BOOST_TEST(row[CProfileMapping::MODBUS_VALUE] == "0.125");
    BOOST_TEST(f->reverse_map(CElement::from_float(NAN), "",
                              no_units)[CProfileMapping::MODBUS_VALUE] == "NaN");
    BOOST_TEST(f->reverse_map(CElement::from_float(0.4), "",
                              no_units)[CProfileMapping::MODBUS_VALUE] == "0.1");

    BOOST_TEST(translator({{"ExternalValueType", "DATATYPE_BOOL"}})
                   ->reverse_map(CElement(), "", no_units)[CProfileMapping::TYPE] == "BOOLEAN");
    BOOST_TEST(translator({{"ExternalValueType", "DATATYPE_STRING"}, {"Size", "2"}})
                   ->reverse_map(CElement::from_string("ABC"), "",
                                 no_units)[CProfileMapping::MODBUS_VALUE] == "AB");
}

BOOST_AUTO_TEST_CASE(swaps_over_offset_layouts) {
    // The bytes of every register are exchanged first, then the registers reversed; reading
    // undoes both. Odd register counts and offset 8 leave no pair to swap by accident.
    const struct {
        const char* what;
        toolkit::node_map_t node;
        CElement value;
        regvec_t natural, bytes, words, both;
    } cases[] = {
        {"uint 4 at 8",
         make_node({{"ExternalValueType", "DATATYPE_UINT"}, {"Size", "4"}, {"BitOffset", "8"}}),
         CElement::from_uint(0x11223344),
         {0x0011, 0x2233, 0x4400},
         {0x1100, 0x3322, 0x0044},
         {0x4400, 0x2233, 0x0011},
         {0x0044, 0x3322, 0x1100}},
        {"int 3 at 0",
         make_node({{"ExternalValueType", "DATATYPE_INT"}, {"Size", "3"}}),
         CElement::from_int(-2),
         {0xFFFF, 0xFE00},
         {0xFFFF, 0x00FE},
         {0xFE00, 0xFFFF},
         {0x00FE, 0xFFFF}},
        {"float at 8",
         make_node({{"ExternalValueType", "DATATYPE_FLOAT"}, {"Size", "4"}, {"BitOffset", "8"}}),
         CElement::from_float(1.0),
         {0x003F, 0x8000, 0x0000},
         {0x3F00, 0x0080, 0x0000},
         {0x0000, 0x8000, 0x003F},
         {0x0000, 0x0080, 0x3F00}},
        {"string 5 at 8",
         make_node({{"ExternalValueType", "DATATYPE_STRING"}, {"Size", "5"}, {"BitOffset", "8"}}),
         CElement::from_string("ABCDE"),
         {0x0041, 0x4243, 0x4445},
         {0x4100, 0x4342, 0x4544},
         {0x4445, 0x4243, 0x0041},
         {0x4544, 0x4342, 0x4100}},
        {"bool at 8",
         make_node({{"ExternalValueType", "DATATYPE_BOOL"}, {"BitOffset", "8"}}),
         CElement::from_bool(true),
         {0x0080},
         {0x8000},
         {0x0080},
         {0x8000}},
    };
    for (const auto& c : cases) {
        const std::pair<const char*, const regvec_t*> variants[] = {
            {"00", &c.natural}, {"10", &c.bytes}, {"01", &c.words}, {"11", &c.both}};
        for (const auto& v : variants) {
            toolkit::node_map_t node = c.node;
            node.emplace("Endianness", std::string(1, v.first[0]));
            node.emplace("WordOrder", std::string(1, v.first[1]));
            const auto m = CRegisterMapping::create(node);
            BOOST_TEST(to_regs(*m, c.value, no_units) == *v.second, c.what << " swaps " << v.first);
            BOOST_TEST(from_regs(*m, *v.second, no_units).str() == c.value.str(),
                       c.what << " swaps " << v.first);
        }
    }

    // A date with its registers reversed reads back the same hour.
    CUtcZone utc;
    const auto date = translator({{"ExternalValueType", "DATATYPE_TIME"},
                                  {"DateSpec", "ymdH"},
                                  {"WordOrder", "1"},
                                  {"Endianness", "1"}});
    const CElement hour = CElement::from_time(timeval{1772719629, 0}); // 2026-03-05 14:07
    BOOST_TEST(to_regs(*date, hour, no_units) == (regvec_t{0x0E05, 0x031A}));
    const time_t back = from_regs(*date, {0x0E05, 0x031A}, no_units).to_timeval().tv_sec;
    tm t;
    BOOST_TEST_REQUIRE(gmtime_r(&back, &t) != nullptr);
    BOOST_TEST(t.tm_year == 126);
    BOOST_TEST(t.tm_mon == 2);
    BOOST_TEST(t.tm_hour == 14);
    BOOST_TEST(t.tm_mday == 5);
}

BOOST_AUTO_TEST_SUITE_END()
