// A register read must not touch the heap per parameter: every translator's to_registers,
// the event properties and the discrete bit, and from_registers for all but text values.
// Counts this thread's operator new calls around each call; sanitizer builds bring their
// own allocator, so there the count is not taken.
#include "cds/event_queue.h"
#include "mapping_test_util.h"
#include "modbus/map/event_mapping.h"
#include "modbus/map/param_discrete_mapping.h"

#include <boost/test/unit_test.hpp>

#include <cstdlib>
#include <new>
#include <string>
#include <sys/time.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define MB_COUNT_ALLOCATIONS 0
#else
#define MB_COUNT_ALLOCATIONS 1
#endif

namespace {

thread_local size_t allocations = 0;

} // namespace

#if MB_COUNT_ALLOCATIONS
// The other forms (arrays, nothrow, sized delete) forward to these two.
void* operator new(std::size_t n) {
    ++allocations;
    if (void* p = std::malloc(n != 0 ? n : 1))
        return p;
    throw std::bad_alloc();
}

void operator delete(void* p) noexcept {
    std::free(p);
}

void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
#endif

using toolkit::CElement;

namespace {

// Heap allocations made by fn on this thread.
template <class F> size_t allocations_in(F fn) {
    const size_t before = allocations;
    fn();
    return allocations - before;
}

} // namespace

BOOST_AUTO_TEST_SUITE(mapping)

BOOST_AUTO_TEST_CASE(translations_do_not_allocate) {
    if (!MB_COUNT_ALLOCATIONS) {
        BOOST_TEST_MESSAGE("allocations are not counted in a sanitizer build");
        return;
    }
    // The counter must see what it is meant to catch.
    volatile size_t sink = 0;
    BOOST_TEST(allocations_in([&] {
                   const std::string text(100, 'x');
                   sink = text.size();
               }) == 1u);

    const struct {
        const char* mapping;
        CElement value;
    } layouts[] = {
        {"INT Size=4 BitOffset=8 Multiplier=10 Units=mV", CElement::from_int(-12345)},
        {"FLOAT Size=4 Units=kW", CElement::from_float(1500.5)},
        {"BOOL BitOffset=8", CElement::from_bool(true)},
        {"TIME DateSpec=YYmdHMSqq", CElement::from_time(timeval{1772719629, 250000})},
        // Far longer than any short-string buffer, so that a copy would allocate.
        {"STRING Size=64", CElement::from_string(std::string(60, 'x') + "tail")},
    };
    const CModbusParamDynamicConfig configs[] = {held_in(nullptr), held_in("V"), held_in("W")};
    for (const auto& l : layouts) {
        for (const char* swaps : {" Endianness=0 WordOrder=0", " Endianness=1 WordOrder=1"}) {
            const auto m = translator(l.mapping + std::string(swaps));
            regvec_t regs(m->reg_count());
            // Its text (a string element owns one) is the part a text value may allocate for.
            CElement out = CElement::from_float(0.0);
            for (const CModbusParamDynamicConfig& cfg : configs) {
                BOOST_TEST(allocations_in([&] { m->to_registers(l.value, cfg, regs.data()); }) ==
                               0u,
                           l.mapping << swaps);
                if (!l.value.is_string())
                    BOOST_TEST(allocations_in([&] { m->from_registers(regs.data(), cfg, out); }) ==
                                   0u,
                               l.mapping << swaps);
            }
        }
    }

    CEventQueue queue(2, "");
    toolkit::CEvent ev;
    ev.kind = 4;
    ev.id = 7;
    ev.time = timeval{1772719629, 0};
    ev.source = tk_string("/Devices/Power/Alarms/Input/mInputPhaseOneOverVoltage");
    ev.url = tk_string("/recordings/waveforms/2026/03/05/capture-000000123456.dat");
    queue.add(ev);
    for (const char* property :
         {"ID UINT Size=4", "Time TIME DateSpec=YYmdHMSS", "Cause UINT Size=2",
          "Param FLOAT Size=4", "WaveformID UINT Size=4"}) {
        for (const char* index : {" EventIndex=0", " EventIndex=1"}) {
            const CEventMapping m(node_of("EventProperty=" + std::string(property) + index));
            regvec_t regs(m.reg_count());
            BOOST_TEST(allocations_in([&] { m.to_registers(queue, regs.data()); }) == 0u,
                       property << index);
        }
    }
    // The cause and id really came from the event, not from an empty slot.
    BOOST_TEST(CEventMapping::find_cause(queue.get(0)) == 11u);
    BOOST_TEST(CEventMapping::extract_waveform_id(queue.get(0)) == 123456u);

    const CParamDiscreteMapping coil(node_of("Name=/Out/Relay/Value"), 1);
    const CElement on = CElement::from_bool(true);
    bool bit = false;
    BOOST_TEST(allocations_in([&] { bit = coil.translate(on); }) == 0u);
    BOOST_TEST(bit);
}

BOOST_AUTO_TEST_SUITE_END()
