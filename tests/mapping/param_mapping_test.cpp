#include "mapping_test_util.h"
#include "modbus/map/map_util.h"
#include "modbus/map/param_discrete_mapping.h"
#include "modbus/map/param_register_mapping.h"
#include "toolkit/store_fixture.h"
#include "util/error.h"

#include <boost/test/unit_test.hpp>

namespace {

const CModbusParamDynamicConfig no_units;

// A 32-bit unsigned register mapping with the given swap keys.
toolkit::node_map_t uint32_node(const char* endianness, const char* word_order) {
    toolkit::node_map_t node =
        make_node({{"Name", "/A/Value"}, {"ExternalValueType", "DATATYPE_UINT"}, {"Size", "4"}});
    if (endianness)
        node.emplace("Endianness", endianness);
    if (word_order)
        node.emplace("WordOrder", word_order);
    return node;
}

} // namespace

BOOST_AUTO_TEST_SUITE(mapping)

BOOST_AUTO_TEST_CASE(parameter_names) {
    for (const char* bad : {"Value", "/Value", ""}) {
        const std::string text = refusal([&] {
            CParamDiscreteMapping(make_node({{"Name", bad}}), 1);
        });
        BOOST_TEST(has_text(text, "[] Name = " + std::string(bad) + ": not a value path"), text);
    }
    const std::string text = refusal([] {
        CParamDiscreteMapping(make_node({{"Address", "1"}}), 1);
    });
    BOOST_TEST(has_text(text, "[]: no Name"), text);

    const CParamDiscreteMapping m(make_node({{"Name", "/X/Value"}}), 7);
    BOOST_TEST(m.path() == "/X/Value");
    BOOST_TEST(m.param_path() == "/X");
    BOOST_TEST(m.id() == 7u);
    // Relative to the device path, so a name need not start with '/'.
    BOOST_TEST(CParamDiscreteMapping(make_node({{"Name", "A/B/Value"}}), 1).param_path() == "A/B");
}

BOOST_AUTO_TEST_CASE(discrete_negation) {
    using toolkit::CElement;
    const CParamDiscreteMapping plain(make_node({{"Name", "/A/V"}, {"NegateValue", "false"}}), 1);
    const CParamDiscreteMapping negated(make_node({{"Name", "/A/V"}, {"NegateValue", "true"}}), 2);
    BOOST_TEST(!plain.negate());
    BOOST_TEST(negated.negate());
    BOOST_TEST(plain.translate(CElement::from_bool(true)));
    BOOST_TEST(!negated.translate(CElement::from_bool(true)));
    BOOST_TEST(negated.translate(CElement::from_int(0)));

    const CElement written = negated.translate(true);
    BOOST_TEST(written.is_bool());
    BOOST_TEST(!written.to_bool());
    BOOST_TEST(CElement::is_invalid_time(written.time()));
    BOOST_TEST(plain.translate(true).to_bool());
}

BOOST_AUTO_TEST_CASE(common_register_keys) {
    const auto bad = [](const char* key, const char* value) {
        toolkit::node_map_t node = make_node({{"ExternalValueType", "DATATYPE_STRING"}});
        node.emplace(key, value);
        if (!node.count("Size"))
            node.emplace("Size", "2");
        BOOST_CHECK_THROW(CRegisterMapping::create(node), CError);
    };
    bad("Size", "0");
    bad("Size", "65536");
    bad("Size", "-2");
    bad("Size", "2x");
    bad("BitOffset", "16");
    bad("BitOffset", "-1");
    // The swaps are on for any text but "" and "0".
    for (const char* value : {"", "0", "big", "7", "true", "1"}) {
        const bool on = *value != '\0' && std::string(value) != "0";
        for (const char* key : {"Endianness", "WordOrder"}) {
            toolkit::node_map_t node =
                make_node({{"ExternalValueType", "DATATYPE_UINT"}, {"Size", "4"}});
            node.emplace(key, value);
            const auto m = CRegisterMapping::create(node);
            BOOST_TEST((key[0] == 'E' ? m->swap_bytes() : m->swap_words()) == on, key << value);
        }
    }

    BOOST_TEST(CRegisterMapping::create(
                   make_node({{"ExternalValueType", "DATATYPE_STRING"}, {"Size", "0xffff"}}))
                   ->size() == 65535);
    for (const char* off : {static_cast<const char*>(nullptr), "0"})
        BOOST_TEST(!CRegisterMapping::create(uint32_node(off, off))->swap_bytes());
    const auto m = CRegisterMapping::create(uint32_node("1", "1"));
    BOOST_TEST(m->swap_bytes());
    BOOST_TEST(m->swap_words());
}

BOOST_AUTO_TEST_CASE(register_counts) {
    const auto count = [](const char* size, const char* offset) {
        return CRegisterMapping::create(make_node({{"ExternalValueType", "DATATYPE_STRING"},
                                                   {"Size", size},
                                                   {"BitOffset", offset}}))
            ->reg_count();
    };
    BOOST_TEST(count("1", "0") == 1u);
    BOOST_TEST(count("2", "0") == 1u);
    BOOST_TEST(count("3", "0") == 2u);
    BOOST_TEST(count("1", "8") == 1u);
    BOOST_TEST(count("2", "8") == 2u);
    BOOST_TEST(count("3", "8") == 2u);
    BOOST_TEST(count("65535", "0") == 32768u);
    BOOST_TEST(count("65535", "8") == 32768u);

    // Only offsets 0 and 8 have a register count, so a bit elsewhere is refused when built.
    BOOST_TEST(CRegisterMapping::create(
                   make_node({{"ExternalValueType", "DATATYPE_BOOL"}, {"BitOffset", "8"}}))
                   ->reg_count() == 1u);
    BOOST_CHECK_THROW(CRegisterMapping::create(
                          make_node({{"ExternalValueType", "DATATYPE_BOOL"}, {"BitOffset", "3"}})),
                      CError);
}

BOOST_AUTO_TEST_CASE(register_swaps) {
    regvec_t regs{1, 2, 3};
    CMapUtil::swap_word_order(regs.data(), regs.size());
    BOOST_TEST((regs == regvec_t{3, 2, 1}));
    regs = {1, 2, 3, 4};
    CMapUtil::swap_word_order(regs.data(), regs.size());
    BOOST_TEST((regs == regvec_t{4, 3, 2, 1}));
    regs = {0x1234, 0xff00};
    CMapUtil::swap_endianness(regs.data(), regs.size());
    BOOST_TEST((regs == regvec_t{0x3412, 0x00ff}));

    const toolkit::CElement v = toolkit::CElement::from_uint(0x11223344);
    const struct {
        const char* bytes;
        const char* words;
        regvec_t regs;
    } cases[] = {
        {nullptr, nullptr, {0x1122, 0x3344}},
        {"1", nullptr, {0x2211, 0x4433}},
        {nullptr, "1", {0x3344, 0x1122}},
        {"1", "1", {0x4433, 0x2211}},
    };
    for (const auto& c : cases) {
        const CParamRegisterMapping m(uint32_node(c.bytes, c.words), 1);
        BOOST_TEST(m.reg_count() == 2u);
        BOOST_TEST(to_regs(m, v, no_units) == c.regs);
        BOOST_TEST(from_regs(m, c.regs, no_units).to_uint() == 0x11223344u);
    }
}

BOOST_AUTO_TEST_SUITE_END()
