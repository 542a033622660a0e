#include "mapping_test_util.h"
#include "modbus/map/event_mapping.h"
#include "util/error.h"

#include <boost/test/unit_test.hpp>

using toolkit::CEvent;

namespace {

CEvent event_from(const char* source, int64_t value = 0) {
    CEvent ev;
    ev.kind = 4;
    ev.source = tk_string(source);
    ev.value = value;
    return ev;
}

CEvent event_at(const char* url) {
    CEvent ev;
    ev.kind = 4;
    ev.url = tk_string(url);
    return ev;
}

CEventMapping event_mapping(const char* property, const char* index, const char* type,
                            const char* size) {
    return CEventMapping(make_node({{"EventProperty", property},
                                    {"EventIndex", index},
                                    {"ExternalValueType", type},
                                    {"Size", size},
                                    {"DateSpec", "YYmdHMSS"}}));
}

// to_registers into reg_count() registers followed by a guard that it must leave alone.
regvec_t event_regs(const CEventMapping& m, const CEventQueue& queue) {
    const mbreg_t guard = 0xA55A;
    regvec_t regs(m.reg_count() + 1, guard);
    m.to_registers(queue, regs.data());
    BOOST_TEST(regs.back() == guard);
    regs.pop_back();
    return regs;
}

} // namespace

BOOST_AUTO_TEST_SUITE(mapping)

BOOST_AUTO_TEST_CASE(event_mapping_keys) {
    // The sample files cover the other failures through the parser.
    const struct {
        const char* property;
        const char* index;
        const char* message;
    } bad[] = {
        {"Waveform", "0", "[] EventProperty = Waveform: not one of ID, Time"},
        {"ID", nullptr, "[]: no EventIndex"},
        {"ID", "one", "[] EventIndex = one: not a number"},
    };
    for (const auto& b : bad) {
        toolkit::node_map_t node = make_node(
            {{"ExternalValueType", "DATATYPE_UINT"}, {"Size", "4"}, {"EventProperty", b.property}});
        if (b.index)
            node.emplace("EventIndex", b.index);
        const std::string text = refusal([&] { CEventMapping m(node); });
        BOOST_TEST(text.find(b.message) != std::string::npos, text);
    }
    BOOST_CHECK_THROW(event_mapping("ID", "0", "DATATYPE_UINT", "0"), CError);

    const char* names[] = {"ID", "Time", "Cause", "Param", "WaveformID"};
    for (unsigned p = 0; p < 5; ++p)
        BOOST_TEST(event_mapping(names[p], "0x3", "DATATYPE_UINT", "4").property() == p + 1);
    const CEventMapping m = event_mapping("Cause", "0x3", "DATATYPE_UINT", "2");
    BOOST_TEST(m.index() == 3u);
    BOOST_TEST(m.reg_count() == 1u);
}

BOOST_AUTO_TEST_CASE(cause_codes) {
    const struct {
        const char* source;
        int64_t value;
        unsigned cause;
    } cases[] = {
        {"/In/mDiscreteInput1", 0, 2},
        {"/In/mDiscreteInput2", 0, 81},
        {"/In/mDiscreteInput3", 0, 0},
        {"/Out/L1OverVoltTrip", 0, 11},
        {"/Out/UnderVolt", 0, 12},
        {"/Out/mACV_L1", 0, 11},
        {"/Out/mACV_L1", 230, 11},
        {"/Out/mACV_L1", -1, 12},
        {"/Out/mACVUnderVolt", -1, 12}, // contains beats begins with
        {"/Out/xmACV", -1, 0},
        {"/Out/mACI_L2", -1, 3},
        {"/Q/aL1Sag", 0, 117},
        {"/Q/aL8Sag", 0, 117},
        {"/Q/aL3Sag", 0, 0},
        {"/Q/aL4Swell", 0, 118},
        {"/Q/aL3Swell", 0, 0},
        {"/Q/aFastTrans", 0, 142},
        {"/Q/aFastTrans2", 0, 0},
        {"mDiscreteInput1", 0, 0}, // no '/'
        {"/Q/", 0, 0},
    };
    for (const auto& c : cases)
        BOOST_TEST(CEventMapping::find_cause(event_from(c.source, c.value)) == c.cause, c.source);
    BOOST_TEST(CEventMapping::find_cause(CEvent()) == 0u);
}

BOOST_AUTO_TEST_CASE(waveform_ids) {
    const uint32_t none = 0xFFFFFFFF;
    BOOST_TEST(CEventMapping::extract_waveform_id(event_at("http://dev/wave/1234.dat")) == 1234u);
    BOOST_TEST(CEventMapping::extract_waveform_id(event_at("/w7/abc")) == 7u);
    BOOST_TEST(CEventMapping::extract_waveform_id(event_at("42")) == 42u);
    BOOST_TEST(CEventMapping::extract_waveform_id(event_at("/w/4294967294")) == 4294967294u);
    {
        CMappingLog log;
        BOOST_TEST(CEventMapping::extract_waveform_id(CEvent()) == none);
        BOOST_TEST(CEventMapping::extract_waveform_id(event_at("")) == none);
        BOOST_TEST(log.text().empty());
    }
    {
        CMappingLog log;
        BOOST_TEST(CEventMapping::extract_waveform_id(event_at("/wave/latest.dat")) == none);
        BOOST_TEST(log.text().find("Can't extract number from URL '/wave/latest.dat'") !=
                   std::string::npos);
    }
    {
        CMappingLog log;
        BOOST_TEST(CEventMapping::extract_waveform_id(event_at("/w/99999999999")) == none);
        BOOST_TEST(log.text().find("Bad conversion from number in URL '/w/99999999999' "
                                   "(99999999999)") != std::string::npos);
    }
}

BOOST_AUTO_TEST_CASE(event_properties_on_full_and_empty_slots) {
    CEventQueue queue(2, "");
    CEvent ev = event_from("/Out/mACV_L1", -5);
    ev.id = 0x100000005ull;
    ev.time = timeval{1772719629, 0}; // 2026-03-05 14:07:09 UTC
    ev.url = tk_string("/wave/77.dat");
    queue.add(ev);

    const struct {
        const char* property;
        const char* type;
        const char* size;
        regvec_t full;
        regvec_t empty;
    } cases[] = {
        {"ID", "DATATYPE_UINT", "4", {0x0000, 0x0005}, {0xFFFF, 0xFFFF}},
        {"Time", "DATATYPE_TIME", "8", {2026, 0x0305, 0x0E07, 9}, {1970, 0x0101, 0, 0}},
        {"Cause", "DATATYPE_UINT", "2", {12}, {0}},
        {"Param", "DATATYPE_FLOAT", "4", {0, 0}, {0, 0}},
        {"WaveformID", "DATATYPE_UINT", "4", {0, 77}, {0xFFFF, 0xFFFF}},
    };
    for (const auto& c : cases) {
        BOOST_TEST(event_regs(event_mapping(c.property, "0", c.type, c.size), queue) == c.full,
                   c.property);
        BOOST_TEST(event_regs(event_mapping(c.property, "1", c.type, c.size), queue) == c.empty,
                   c.property);
    }
    BOOST_TEST(
        event_mapping("Param", "0", "DATATYPE_FLOAT", "4").get_mapped_data(queue).is_float());
    BOOST_TEST(event_mapping("ID", "0", "DATATYPE_UINT", "4").get_mapped_data(queue).to_uint() ==
               5u);
}

BOOST_AUTO_TEST_SUITE_END()
