#include "mapping_test_util.h"
#include "modbus/map/register_mapping.h"
#include "util/generic_err.h"

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
            BOOST_TEST(m->to_registers(CElement::from_uint(c.value), no_units) == c.regs,
                       type << " size " << c.size << " offset " << c.offset);
            BOOST_TEST(m->from_registers(c.regs, no_units).to_uint() == c.value);
        }
    }
    // The field keeps the low bytes of a wider value.
    BOOST_TEST(
        integer("DATATYPE_UINT", "2", "0")->to_registers(CElement::from_uint(0x12345), no_units) ==
        regvec_t{0x2345});
    // Bits outside the field are ignored on the way back.
    BOOST_TEST(integer("DATATYPE_UINT", "1", "8")->from_registers({0xAB12}, no_units).to_uint() ==
               0x12u);

    // The two layouts the translation cannot place are refused when built, so a mapping
    // file cannot carry them to a read or write.
    BOOST_CHECK_THROW(integer("DATATYPE_UINT", "1", "0"), generic_err);
    BOOST_CHECK_THROW(integer("DATATYPE_INT", "2", "8"), generic_err);
    // Beyond 4 bytes a written value would be cut to 32 bits without a word.
    for (const char* size : {"5", "6", "8", "99"})
        BOOST_CHECK_THROW(integer("DATATYPE_UINT", size, "0"), generic_err);
}

BOOST_AUTO_TEST_CASE(integer_signs) {
    const auto s16 = integer("DATATYPE_INT", "2", "0");
    const auto u16 = integer("DATATYPE_UINT", "2", "0");
    const CElement back = s16->from_registers({0xFFFF}, no_units);
    BOOST_TEST(back.type() == CElement::TYPE_INT);
    BOOST_TEST(back.to_int() == -1);
    BOOST_TEST(s16->to_registers(CElement::from_int(-1), no_units) == regvec_t{0xFFFF});
    BOOST_TEST(s16->from_registers({0x7FFF}, no_units).to_int() == 32767);
    const CElement ubig = u16->from_registers({0xFFFF}, no_units);
    BOOST_TEST(ubig.type() == CElement::TYPE_UINT);
    BOOST_TEST(ubig.to_uint() == 65535u);

    const auto s24 = integer("DATATYPE_INT", "3", "0");
    BOOST_TEST(s24->to_registers(CElement::from_int(-2), no_units) == (regvec_t{0xFFFF, 0xFE00}));
    BOOST_TEST(s24->from_registers({0xFFFF, 0xFE00}, no_units).to_int() == -2);
    BOOST_TEST(s24->from_registers({0x7FFF, 0xFF00}, no_units).to_int() == 0x7FFFFF);
    BOOST_TEST(integer("DATATYPE_INT", "1", "8")->from_registers({0xAB80}, no_units).to_int() ==
               -128);
    const auto s32 = integer("DATATYPE_INT", "4", "0");
    BOOST_TEST(s32->from_registers({0x8000, 0x0000}, no_units).to_int() == INT32_MIN);
}

BOOST_AUTO_TEST_CASE(integer_scaling) {
    const auto by10 =
        translator({{"ExternalValueType", "DATATYPE_UINT"}, {"Size", "2"}, {"Multiplier", "10"}});
    BOOST_TEST(by10->to_registers(CElement::from_uint(12), no_units) == regvec_t{120});
    BOOST_TEST(by10->from_registers({125}, no_units).to_uint() == 12u);
    // A negative reading of an unsigned register becomes its magnitude.
    BOOST_TEST(by10->to_registers(CElement::from_float(-0.37), no_units) == regvec_t{3});

    const auto u = translator({{"ExternalValueType", "DATATYPE_UINT"}, {"Size", "2"}});
    BOOST_TEST(u->to_registers(CElement::from_float(-3.7), no_units) == regvec_t{3});
    BOOST_TEST(u->to_registers(CElement::from_float(7.9), no_units) == regvec_t{7});
    const auto u32 = translator({{"ExternalValueType", "DATATYPE_UINT"}, {"Size", "4"}});
    BOOST_TEST(u32->to_registers(CElement::from_float(3e9), no_units) ==
               (regvec_t{0xB2D0, 0x5E00}));
    BOOST_TEST(u32->to_registers(CElement::from_float(1e12), no_units) ==
               (regvec_t{0xFFFF, 0xFFFF}));

    const auto s = translator({{"ExternalValueType", "DATATYPE_INT"},
                               {"Size", "2"},
                               {"Multiplier", "10"},
                               {"Divider", "4"}});
    BOOST_TEST(s->to_registers(CElement::from_int(-12), no_units) == regvec_t{0xFFE2}); // -30
    BOOST_TEST(s->from_registers({0xFFE2}, no_units).to_int() == -12);
    BOOST_TEST(s->to_registers(CElement::from_float(-3.7), no_units) == regvec_t{0xFFF7}); // -9

    const auto div = translator({{"ExternalValueType", "DATATYPE_UINT"},
                                 {"Size", "2"},
                                 {"Divider", "0x4"},
                                 {"Multiplier", "3"}});
    BOOST_TEST(div->to_registers(CElement::from_uint(100), no_units) == regvec_t{75});
    BOOST_TEST(div->from_registers({75}, no_units).to_uint() == 100u);
}

BOOST_AUTO_TEST_CASE(integer_units) {
    const auto mv = translator({{"ExternalValueType", "DATATYPE_UINT"},
                                {"Size", "4"},
                                {"Units", "mV"},
                                {"Multiplier", "10"}});
    // Unsigned values with a units ratio skip the multiplier; the ratio applies both ways.
    BOOST_TEST(mv->to_registers(CElement::from_uint(12), held_in("V")) == (regvec_t{0, 12000}));
    BOOST_TEST(mv->from_registers({0, 50}, held_in("V")).to_uint() == 5000u);
    // No conversion without units on both sides, or between dimensions.
    BOOST_TEST(mv->to_registers(CElement::from_uint(12), no_units) == (regvec_t{0, 120}));
    BOOST_TEST(mv->to_registers(CElement::from_uint(12), held_in("A")) == (regvec_t{0, 120}));
    BOOST_TEST(mv->to_registers(CElement::from_uint(12), held_in("degC")) == (regvec_t{0, 120}));

    const auto smv = translator({{"ExternalValueType", "DATATYPE_INT"},
                                 {"Size", "4"},
                                 {"Units", "mV"},
                                 {"Multiplier", "2"}});
    BOOST_TEST(smv->to_registers(CElement::from_int(-3), held_in("V")) ==
               (regvec_t{0xFFFF, 0xE890})); // -6000
    BOOST_TEST(smv->from_registers({0xFFFF, 0xE890}, held_in("V")).to_int() == -3000000);
    BOOST_TEST(smv->to_registers(CElement::from_float(-1.5), held_in("V")) ==
               (regvec_t{0xFFFF, 0xF448})); // -3000
}

BOOST_AUTO_TEST_CASE(float_patterns) {
    const auto f = translator({{"ExternalValueType", "DATATYPE_FLOAT"}, {"Size", "4"}});
    const auto f8 =
        translator({{"ExternalValueType", "DATATYPE_FLOAT"}, {"Size", "4"}, {"BitOffset", "8"}});
    BOOST_TEST(f->to_registers(CElement::from_float(1.0), no_units) == (regvec_t{0x3F80, 0x0000}));
    BOOST_TEST(f->to_registers(CElement::from_float(-2.5), no_units) == (regvec_t{0xC020, 0x0000}));
    BOOST_TEST(f->to_registers(CElement::from_int(3), no_units) == (regvec_t{0x4040, 0x0000}));
    BOOST_TEST(f->from_registers({0xC020, 0x0000}, no_units).to_float() == -2.5);
    BOOST_TEST(f->from_registers({0x3F80, 0x0000}, no_units).is_float());
    BOOST_TEST(std::isnan(f->from_registers({0x7FC0, 0x0000}, no_units).to_float()));
    BOOST_TEST(f8->reg_count() == 3u);
    BOOST_TEST(f8->to_registers(CElement::from_float(1.0), no_units) ==
               (regvec_t{0x003F, 0x8000, 0x0000}));
    BOOST_TEST(f8->from_registers({0xFF3F, 0x8000, 0x00FF}, no_units).to_float() == 1.0);

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
        BOOST_TEST(m->to_registers(CElement::from_float(1.0), no_units) == s.regs);
        BOOST_TEST(m->from_registers(s.regs, no_units).to_float() == 1.0);
    }
}

BOOST_AUTO_TEST_CASE(float_scaling_and_units) {
    const auto by10 =
        translator({{"ExternalValueType", "DATATYPE_FLOAT"}, {"Size", "4"}, {"Multiplier", "10"}});
    BOOST_TEST(by10->to_registers(CElement::from_float(1.5), no_units) ==
               (regvec_t{0x4170, 0x0000})); // 15.0
    BOOST_TEST(by10->from_registers({0x4170, 0x0000}, no_units).to_float() == 1.5);
    const auto by4 =
        translator({{"ExternalValueType", "DATATYPE_FLOAT"}, {"Size", "4"}, {"Divider", "4"}});
    BOOST_TEST(by4->to_registers(CElement::from_float(10.0), no_units) ==
               (regvec_t{0x4020, 0x0000})); // 2.5
    BOOST_TEST(by4->from_registers({0x4020, 0x0000}, no_units).to_float() == 10.0);

    // Toward the registers parameter -> mapping units, back mapping -> parameter units.
    const auto kw =
        translator({{"ExternalValueType", "DATATYPE_FLOAT"}, {"Size", "4"}, {"Units", "kW"}});
    BOOST_TEST(kw->to_registers(CElement::from_float(1500.0), held_in("W")) ==
               (regvec_t{0x3FC0, 0x0000})); // 1.5
    BOOST_TEST(kw->from_registers({0x3FC0, 0x0000}, held_in("W")).to_float() == 1500.0);
    BOOST_TEST(kw->from_registers({0x3FC0, 0x0000}, no_units).to_float() == 1.5);
    // Out of float range: an infinity, not undefined behaviour.
    BOOST_TEST(kw->to_registers(CElement::from_float(1e300), no_units) ==
               (regvec_t{0x7F80, 0x0000}));
}

BOOST_AUTO_TEST_CASE(string_layouts) {
    const auto s6 = translator({{"ExternalValueType", "DATATYPE_STRING"}, {"Size", "6"}});
    BOOST_TEST(s6->to_registers(CElement::from_string("AB"), no_units) == (regvec_t{0x4142, 0, 0}));
    BOOST_TEST(s6->from_registers({0x4142, 0, 0}, no_units).str() == "AB");
    BOOST_TEST(s6->to_registers(CElement::from_string(""), no_units) == (regvec_t{0, 0, 0}));
    BOOST_TEST(s6->from_registers({0, 0, 0}, no_units).str() == "");
    BOOST_TEST(s6->from_registers({0x4142, 0x4344, 0x4546}, no_units).str() == "ABCDEF");

    // An odd size holds one byte more on the way out; reading takes "Size" bytes.
    const auto s3 = translator({{"ExternalValueType", "DATATYPE_STRING"}, {"Size", "3"}});
    BOOST_TEST(s3->to_registers(CElement::from_string("ABCDEF"), no_units) ==
               (regvec_t{0x4142, 0x4344}));
    BOOST_TEST(s3->from_registers({0x4142, 0x4344}, no_units).str() == "ABC");

    const auto s3o8 =
        translator({{"ExternalValueType", "DATATYPE_STRING"}, {"Size", "3"}, {"BitOffset", "8"}});
    BOOST_TEST(s3o8->to_registers(CElement::from_string("ABCD"), no_units) ==
               (regvec_t{0x0041, 0x4243}));
    BOOST_TEST(s3o8->from_registers({0x5841, 0x4243}, no_units).str() == "ABC");

    const auto swapped =
        translator({{"ExternalValueType", "DATATYPE_STRING"}, {"Size", "4"}, {"Endianness", "1"}});
    BOOST_TEST(swapped->to_registers(CElement::from_string("ABCD"), no_units) ==
               (regvec_t{0x4241, 0x4443}));
    BOOST_TEST(swapped->from_registers({0x4241, 0x4443}, no_units).str() == "ABCD");
    BOOST_TEST(CElement::is_invalid_time(swapped->from_registers({0, 0}, no_units).time()));
}

BOOST_AUTO_TEST_CASE(bit_positions) {
    // The top bit of the high byte (0) or of the low byte (8); no other offset has a
    // register count, so the others are refused when built.
    for (unsigned offset = 0; offset < 16; ++offset) {
        const std::string text = std::to_string(offset);
        if (offset != 0 && offset != 8) {
            BOOST_CHECK_THROW(
                translator({{"ExternalValueType", "DATATYPE_BOOL"}, {"BitOffset", text.c_str()}}),
                generic_err);
            continue;
        }
        const auto m =
            translator({{"ExternalValueType", "DATATYPE_BOOL"}, {"BitOffset", text.c_str()}});
        const mbreg_t bit = static_cast<mbreg_t>(0x8000u >> offset);
        BOOST_TEST(m->to_registers(CElement::from_bool(true), no_units) == regvec_t{bit});
        BOOST_TEST(m->to_registers(CElement::from_bool(false), no_units) == regvec_t{0});
        BOOST_TEST(m->from_registers({bit}, no_units).to_bool());
        BOOST_TEST(!m->from_registers({static_cast<mbreg_t>(~bit)}, no_units).to_bool());
    }
    const auto b = translator({{"ExternalValueType", "DATATYPE_BOOL"}, {"Size", "2"}});
    BOOST_TEST(b->to_registers(CElement::from_int(5), no_units) == regvec_t{0x8000});
    BOOST_TEST(b->from_registers({0x8000}, no_units).is_bool());
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

BOOST_AUTO_TEST_SUITE_END()
