#pragma once
// The register mappings (holding or input registers) of one unit that touch an address
// range, in walk order (files as added, each in address order), with each mapping's
// attributes entry. The profiler walks a whole unit's map with it; requests use the unit's
// resolved map (modbus/core/unit_map.h).
//
// Built by CModbusDeviceConfig::get_registers. It holds iterator ranges into the unit's
// parsed files and pointers to its dynamic configurations, so it must not outlive the
// device configuration.
#include "modbus/config/modbus_device_dynamic_config.h"
#include "modbus/map/eds_mapping.h"

#include <vector>

class CRegisterMaplist {
public:
    typedef CEdsMapping::register_iterrange_t register_iterrange_t;
    typedef CEdsMapping::event_iterrange_t event_iterrange_t;

    // zero_fill: unmapped or unreadable registers read as 0 instead of failing the read.
    CRegisterMaplist(const CAddressRange& addrs, bool zero_fill);

    // One file's mappings that overlap the range (CEdsMapping::get_register_mappings and
    // get_event_mappings).
    void add(const register_iterrange_t& range);
    void add(const event_iterrange_t& range);
    // Takes each register mapping's attributes entry from the device; call after the last add.
    void get_dynamic_cfg(CModbusDeviceDynamicConfig& cfg);

    const CAddressRange& addrs() const { return _addrs; }
    bool zero_fill() const { return _zero_fill; }
    const std::vector<register_iterrange_t>& register_ranges() const { return _register_ranges; }
    const std::vector<event_iterrange_t>& event_ranges() const { return _event_ranges; }
    // One per register mapping, in walk order, after get_dynamic_cfg.
    const std::vector<CModbusParamDynamicConfig*>& configs() const { return _configs; }

private:
    CAddressRange _addrs;
    std::vector<register_iterrange_t> _register_ranges;
    std::vector<event_iterrange_t> _event_ranges;
    std::vector<CModbusParamDynamicConfig*> _configs;
    bool _zero_fill;
};
