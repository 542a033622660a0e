#include "mapping_test_util.h"
#include "modbus/map/event_mapping.h"

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

} // namespace

BOOST_AUTO_TEST_SUITE(mapping)

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
    const struct {
        const char* url; // none for an event without one
        uint32_t id;
        const char* logged;
    } cases[] = {
        {"http://dev/wave/1234.dat", 1234, ""},
        {"/w7/abc", 7, ""},
        {"42", 42, ""},
        {"/w/4294967294", 4294967294u, ""},
        {nullptr, none, ""},
        {"", none, ""},
        {"/wave/latest.dat", none, "Can't extract number from URL '/wave/latest.dat'"},
        {"/w/99999999999", none,
         "Bad conversion from number in URL '/w/99999999999' (99999999999)"},
    };
    for (const auto& c : cases) {
        CSubsystemLog log(SS_MAPPING, 2);
        CEvent ev;
        if (c.url)
            ev.url = tk_string(c.url);
        BOOST_TEST(CEventMapping::extract_waveform_id(ev) == c.id);
        const std::string text = log.text();
        BOOST_TEST((*c.logged ? text.find(c.logged) != std::string::npos : text.empty()), text);
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
        const char* mapping;
        regvec_t full;
        regvec_t empty;
    } cases[] = {
        {"EventProperty=ID UINT Size=4", {0x0000, 0x0005}, {0xFFFF, 0xFFFF}},
        {"EventProperty=Time TIME DateSpec=YYmdHMSS",
         {2026, 0x0305, 0x0E07, 9},
         {1970, 0x0101, 0, 0}},
        {"EventProperty=Cause UINT Size=2", {12}, {0}},
        {"EventProperty=Param FLOAT Size=4", {0, 0}, {0, 0}},
        {"EventProperty=WaveformID UINT Size=4", {0, 77}, {0xFFFF, 0xFFFF}},
    };
    for (const auto& c : cases) {
        // Hexadecimal like every number of a mapping file.
        for (const auto& slot : {std::make_pair(" EventIndex=0", &c.full),
                                 std::make_pair(" EventIndex=0x1", &c.empty)}) {
            const CEventMapping m(node_of(c.mapping + std::string(slot.first)));
            regvec_t regs(m.reg_count() + 1, 0xA55A);
            m.to_registers(queue, regs.data());
            BOOST_TEST(regs.back() == 0xA55A, c.mapping << " wrote past its registers");
            regs.pop_back();
            BOOST_TEST(regs == *slot.second, c.mapping << slot.first);
        }
    }
    // The element itself as well: the id cut to 32 bits, the parameter a float.
    const auto data = [&](const char* m) {
        return CEventMapping(node_of(m)).get_mapped_data(queue);
    };
    BOOST_TEST(data("EventProperty=ID EventIndex=0 UINT Size=4").to_uint() == 5u);
    BOOST_TEST(data("EventProperty=Param EventIndex=0 FLOAT Size=4").is_float());
}

BOOST_AUTO_TEST_SUITE_END()
