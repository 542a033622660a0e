#pragma once
// One property of one recent event of the device's event log, as read-only registers.
//
// "EventIndex" picks the event queue's slot (0: newest), "EventProperty" the property:
// ID (the id's low 32 bits; all ones for an empty slot), Time, Cause (a code derived from
// the source path), Param (always 0.0) or WaveformID (the last run of digits in the URL;
// all ones when there is none). The node's register keys ("ExternalValueType", "Size", ...)
// choose the translator that lays the value into registers.
#include "cds/event_queue.h"
#include "modbus/map/register_mapping.h"

#include "toolkit/event_log.h"

#include <cstddef>
#include <cstdint>
#include <memory>

class CEventMapping {
public:
    enum property_t : unsigned { ID = 1, TIME, CAUSE, PARAM, WAVEFORM_ID };

    // The event queue keeps this many events at most; a mapping of an older one reads as
    // an empty slot.
    static constexpr size_t max_events = 65536;

    // Fails (CMapUtil::fail) for a missing or unknown "EventProperty", a missing or negative
    // "EventIndex", and when the translator cannot be built.
    explicit CEventMapping(const toolkit::node_map_t& node);
    virtual ~CEventMapping() = default;

    size_t reg_count() const;
    // The property of the indexed event, laid out without units conversion in reg_count()
    // registers at out; an index beyond the queue's slots reads as an empty slot. Allocates
    // nothing.
    bool to_registers(const CEventQueue& events, mbreg_t* out) const;
    toolkit::CElement get_mapped_data(const CEventQueue& events) const;

    unsigned property() const { return _property; }
    size_t index() const { return _index; }
    const CRegisterMapping& mapping() const;

    static unsigned find_cause(const toolkit::CEvent& ev);
    // Warns and gives all ones when the URL has no usable number.
    static uint32_t extract_waveform_id(const toolkit::CEvent& ev);

private:
    unsigned _property = 0;
    size_t _index = 0;
    std::unique_ptr<CRegisterMapping> _mapping;
};
