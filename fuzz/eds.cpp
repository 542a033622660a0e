// Fuzz target: a mapping file, read by the EDS reader and then parsed into mappings as the
// server parses each unit's files. Any error is fine as long as it is reported as one whose
// message names the file and a reason, since that line is all the user is told; the
// mappings of a file that parses must translate values both ways without overrunning the
// registers they occupy.
#include "support/fuzz_log.h"
#include "support/fuzz_store.h"

#include "modbus/map/eds_mapping.h"
#include "util/error.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace {

void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "eds: %s\n", what);
        std::abort();
    }
}

// Values of every type, including those no register layout can hold.
const std::vector<toolkit::CElement>& probe_values() {
    static const std::vector<toolkit::CElement> values = {
        toolkit::CElement::from_int(-1),
        toolkit::CElement::from_int(std::numeric_limits<int64_t>::min()),
        toolkit::CElement::from_uint(std::numeric_limits<uint64_t>::max()),
        toolkit::CElement::from_float(-1e300),
        toolkit::CElement::from_float(std::nan("")),
        toolkit::CElement::from_bool(true),
        toolkit::CElement::from_string("a text longer than most string mappings hold"),
        toolkit::CElement::from_time({4102444800, 999999}),
        toolkit::CElement(),
    };
    return values;
}

void translate_registers(const CEdsMapping& eds) {
    const CModbusParamDynamicConfig cfg;
    const auto range = eds.get_register_mappings(CAddressRange(0, 0xFFFF));
    for (auto it = range.first; it != range.second; ++it) {
        const CAddressRange& addrs = it->first;
        const CParamRegisterMapping& mapping = *it->second;
        check(addrs.first <= addrs.second, "a mapping's range is reversed");
        const size_t count = mapping.reg_count();
        check(count == static_cast<size_t>(addrs.second - addrs.first) + 1u,
              "a mapping's register count differs from its address range");
        // One guard register past the mapping's own: to_registers must not touch it.
        const mbreg_t guard = 0xA55A;
        regvec_t regs(count + 1);
        for (const toolkit::CElement& value : probe_values()) {
            regs.back() = guard;
            mapping.to_registers(value, cfg, regs.data());
            check(regs.back() == guard, "to_registers wrote more registers than the mapping has");
        }
        for (const mbreg_t fill : {0x0000, 0xFFFF, 0x8000, 0x3A30}) {
            toolkit::CElement out;
            mapping.from_registers(regvec_t(count, fill).data(), cfg, out);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static CFuzzStore* env = [] {
        fuzz_quiet_logs();
        return new CFuzzStore;
    }();
    const tk_string path = env->file("input.eds");
    fuzz_write_file(path, data, size);

    toolkit::CEds reader;
    if (reader.open(path) == 0) {
        toolkit::node_map_t node;
        int rc;
        size_t nodes = 0;
        while ((rc = reader.next_node(node)) == 0)
            check(++nodes <= size, "the reader returned more nodes than the file has bytes");
        check(rc > 0 || !reader.error().empty(), "a malformed line without a message");
    }

    try {
        const CEdsMapping eds(path);
        translate_registers(eds);
        const auto discretes = eds.get_discrete_mappings(CAddressRange(0, 0xFFFF));
        for (auto it = discretes.first; it != discretes.second; ++it)
            for (const toolkit::CElement& value : probe_values())
                it->second->translate(value);
        const auto events = eds.get_event_mappings(CAddressRange(0, 0xFFFF));
        size_t max_index = 0;
        for (auto it = events.first; it != events.second; ++it)
            max_index = std::max<size_t>(max_index, it->second->index());
        // An index past the log's end reads as an empty event; the queue is sized to the end.
        max_index = std::min<size_t>(max_index, CEventMapping::max_events - 1);
        check(max_index == eds.max_event_index(), "max_event_index differs from the mappings");
    } catch (const CError& e) {
        const tk_string head = "Error parsing EDS file: '" + path + "': ";
        check(tk_string(e.what()).compare(0, head.size(), head) == 0 &&
                  std::strlen(e.what()) > head.size(),
              "a refused file without its name or a reason");
    }
    return 0;
}
