#pragma once
// Points in time ("DATATYPE_TIME") laid out by a date spec ("DateSpec", see
// CTimeMappingSpec): the parameter's value as a time, or with "Timestamp" set (non-empty,
// not "0") the time stamp of any parameter, which is then read-only.
//
// Toward the registers the fields are taken in UTC. Back from the registers the fields the
// date spec does not name keep the current time's, and the result is read as local
// time, as the device always did; the two directions agree where local time is UTC.
#include "modbus/map/register_mapping.h"
#include "modbus/map/time_mapping_spec.h"

#include <memory>

class CTimeMapping : public CRegisterMapping {
public:
    // Fails (CMapUtil::fail) for an offset other than 0 or 8, a missing, empty or bad
    // "DateSpec", or a "Size" other than the date spec's length (the default).
    explicit CTimeMapping(const toolkit::node_map_t& node);

    CProfileMapping reverse_map(const toolkit::CElement& el, const tk_string& units,
                                const CModbusParamDynamicConfig& cfg) const override;
    // False when the time has no calendar date.
    bool translate(const toolkit::CElement& el, const CModbusParamDynamicConfig& cfg,
                   mbreg_t* out) const override;
    // False for a time stamp mapping (after a warning) and when the date written is no time.
    bool translate(const mbreg_t* regs, const CModbusParamDynamicConfig& cfg,
                   toolkit::CElement& out) const override;

    bool timestamp() const { return _timestamp; }
    const CTimeMappingSpec& spec() const;

private:
    bool _timestamp = false;
    std::unique_ptr<CTimeMappingSpec> _spec;
};
