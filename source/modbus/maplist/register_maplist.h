#pragma once
// One register request (holding or input registers) of one unit: the register mappings that
// touch the requested range, the store leaves to read for them, and the translation of the
// leaves read into registers (reads) or of written registers into leaves (writes).
//
// Built per request by CModbusDeviceConfig::get_registers. It holds iterator ranges into the
// unit's parsed files and pointers to its dynamic configurations, so it must not outlive the
// device configuration. Leaf paths are the mappings' value paths, relative to the device
// path (the read and write commands take the device path as their prefix).
//
// Read:  get_paths(true, true), read the leaves, update_configs, translate_vals.
// Write: get_paths(true, true), read the leaves, update_configs, check_range (pad the values
//        to its result when larger), get_vals, write the result.
//
// Event mappings are kept but not walked: registers only an event covers read as unmapped.
#include "cds/cds_leaf.h"
#include "cds/event_queue.h"
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

    // The value leaves (mappings) and the attribute leaves not read yet (configs) of every
    // register mapping. Empty when no register mapping touches the range.
    cds_leaf_set_t get_paths(bool mappings, bool configs) const;
    void update_configs(const cds_leaf_set_t& leaves) const;
    // One register per address of the range. Throws generic_err, without zero fill, when a
    // register is unmapped or its parameter could not be read.
    regvec_t translate_vals(const cds_leaf_set_t& leaves, const CEventQueue& events) const;
    // The register count a write must cover: the size of the last (in walk order) writable
    // mapping whose leaf was read. -1 when there is none, and when writing that many
    // registers from the start of the range would pass address 0xFFFF.
    int check_range(const cds_leaf_set_t& leaves, const regvec_t& vals) const;
    // The leaves that store vals, written from the start of the range on. Parameters that
    // are not writable, could not be read, straddle an edge of the written registers or
    // have no register left that a lower id did not claim are left out, so the result may
    // be empty. Throws generic_err when vals is empty or runs past address 0xFFFF, and when
    // a translator refuses the registers (a time stamp, for one).
    cds_leaf_set_t get_vals(const cds_leaf_set_t& leaves, const regvec_t& vals) const;

    const CAddressRange& addrs() const { return _addrs; }
    bool zero_fill() const { return _zero_fill; }
    const std::vector<register_iterrange_t>& register_ranges() const { return _register_ranges; }
    const std::vector<event_iterrange_t>& event_ranges() const { return _event_ranges; }
    // One per register mapping, in walk order, after get_dynamic_cfg.
    const std::vector<CModbusParamDynamicConfig*>& configs() const { return _configs; }

private:
    CModbusParamDynamicConfig* config(size_t i) const;
    // The readable, writable mappings with their configurations, in walk order.
    template <class F> void for_each_writable(const cds_leaf_set_t& leaves, F f) const;

    CAddressRange _addrs;
    std::vector<register_iterrange_t> _register_ranges;
    std::vector<event_iterrange_t> _event_ranges;
    std::vector<CModbusParamDynamicConfig*> _configs;
    bool _zero_fill;
};
