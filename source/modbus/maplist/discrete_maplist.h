#pragma once
// One bit request (coils or discrete inputs) of one unit: the discrete mappings that fall in
// the requested range, the store leaves to read for them, and the translation of the leaves
// read into bits (reads) or of the bits into leaves to write (writes).
//
// Built per request by CModbusDeviceConfig::get_discretes. It holds iterator ranges into the
// unit's parsed files and pointers to its dynamic configurations, so it must not outlive the
// device configuration. Leaf paths are the mappings' value paths, relative to the device
// path (the read and write commands take the device path as their prefix).
//
// Read:  get_paths(true, true), read the leaves, update_configs, translate_vals.
// Write: get_paths(true, true), read the leaves, update_configs, get_vals, write the result.
// Every call walks the mappings in the same order: ranges as added, each in address order.
#include "cds/cds_leaf.h"
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

    // The value leaves (mappings) and the attribute leaves not read yet (configs) of every
    // mapping. Empty when nothing is mapped in the range.
    cds_leaf_set_t get_paths(bool mappings, bool configs) const;
    // Hands the leaves read to each parameter's attributes.
    void update_configs(const cds_leaf_set_t& leaves) const;
    // One bit per address of the range. Throws generic_err, without zero fill, when an
    // address is unmapped or its leaf could not be read. leaves must be what get_paths gave,
    // read.
    std::vector<bool> translate_vals(const cds_leaf_set_t& leaves) const;
    // The leaves that store vals (one per address of the range). Parameters that are not
    // writable or whose leaf could not be read are left out, so the result may be short or
    // empty.
    cds_leaf_set_t get_vals(const cds_leaf_set_t& leaves, const std::vector<bool>& vals) const;

    const CAddressRange& addrs() const { return _addrs; }
    bool zero_fill() const { return _zero_fill; }
    const std::vector<discrete_iterrange_t>& ranges() const { return _ranges; }
    // One per mapping, in walk order, after get_dynamic_cfg.
    const std::vector<CModbusParamDynamicConfig*>& configs() const { return _configs; }

private:
    CModbusParamDynamicConfig* config(size_t i) const;

    CAddressRange _addrs;
    std::vector<discrete_iterrange_t> _ranges;
    std::vector<CModbusParamDynamicConfig*> _configs;
    bool _zero_fill;
};
