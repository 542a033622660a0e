#pragma once
// The discrete mappings (coils or discrete inputs) of one unit that fall in an address
// range, in walk order (files as added, each in address order), with each mapping's
// attributes entry. The profiler walks a whole unit's map with it; requests use the unit's
// resolved map (modbus/core/unit_map.h).
//
// Built by CModbusDeviceConfig::get_discretes. It holds iterator ranges into the unit's
// parsed files and pointers to its dynamic configurations, so it must not outlive the
// device configuration.
#include "modbus/config/modbus_device_dynamic_config.h"
#include "modbus/map/eds_mapping.h"

#include <vector>

class CDiscreteMaplist {
public:
    typedef CEdsMapping::discrete_iterrange_t discrete_iterrange_t;

    // zero_fill: unmapped or unreadable addresses read as 0 instead of failing the read.
    CDiscreteMaplist(const CAddressRange& addrs, bool zero_fill);

    // One file's mappings that overlap the range (CEdsMapping::get_discrete_mappings).
    void add(const discrete_iterrange_t& range);
    // Takes each mapping's attributes entry from the device; call after the last add.
    void get_dynamic_cfg(CModbusDeviceDynamicConfig& cfg);

    const CAddressRange& addrs() const { return _addrs; }
    bool zero_fill() const { return _zero_fill; }
    const std::vector<discrete_iterrange_t>& ranges() const { return _ranges; }
    // One per mapping, in walk order, after get_dynamic_cfg.
    const std::vector<CModbusParamDynamicConfig*>& configs() const { return _configs; }

private:
    CAddressRange _addrs;
    std::vector<discrete_iterrange_t> _ranges;
    std::vector<CModbusParamDynamicConfig*> _configs;
    bool _zero_fill;
};
