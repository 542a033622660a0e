#pragma once
// The registers one register request yields, gathered per parameter and then laid over the
// requested range. Where parameters overlap, the lower parameter id wins, and among equal
// ids (mappings of different files) the one added first. A parameter that straddles an edge
// of the range gives only its registers inside it when read, and is not written at all.
#include "cds/cds_leaf.h"
#include "cds/event_queue.h"
#include "modbus/address_range/address_range.h"
#include "modbus/config/modbus_param_dynamic_config.h"
#include "modbus/map/event_mapping.h"
#include "modbus/map/param_register_mapping.h"

#include <vector>

// One parameter's (or event property's) claim on its whole address range. Holds pointers
// only; the mapping, leaf and configuration must outlive it.
class CRegisterResultEntry {
public:
    // Read entry.
    CRegisterResultEntry(const CAddressRange& addr, const CParamRegisterMapping* param,
                         const CCdsLeaf* leaf, const CModbusParamDynamicConfig* cfg);
    // Write entry.
    CRegisterResultEntry(const CAddressRange& addr, const CParamRegisterMapping* param,
                         const CModbusParamDynamicConfig* cfg);
    // Event entry.
    CRegisterResultEntry(const CAddressRange& addr, const CEventMapping* event);

    const CAddressRange& addr() const { return _addr; }
    // The parameter id; 0 for an event.
    size_t id() const;
    // The parameter's node, or "event::<index>".
    tk_string name() const;
    // The registers of the whole range (addr().size() of them).
    regvec_t translate(const CEventQueue& events) const;
    // The leaf that stores regs (addr().size() registers); throws generic_err where the
    // translator refuses the registers.
    CCdsLeaf leaf(const regvec_t& regs) const;

private:
    CAddressRange _addr;
    const CParamRegisterMapping* _param = nullptr;
    const CCdsLeaf* _leaf = nullptr;
    const CModbusParamDynamicConfig* _cfg = nullptr;
    const CEventMapping* _event = nullptr;
};

class CRegisterResultSet {
public:
    explicit CRegisterResultSet(const CAddressRange& addrs) : _addrs(addrs) {}

    void add(const CAddressRange& addr, const CParamRegisterMapping* param, const CCdsLeaf* leaf,
             const CModbusParamDynamicConfig* cfg);
    void add(const CAddressRange& addr, const CParamRegisterMapping* param,
             const CModbusParamDynamicConfig* cfg);
    void add(const CAddressRange& addr, const CEventMapping* event);

    // One register per address of the range; each entry must overlap the range. Registers
    // no entry covers are 0 with zero fill, and throw generic_err without it.
    regvec_t translate(const CEventQueue& events, bool zero_fill);
    // The leaves that store vals (one per address of the range): entries wholly inside the
    // range with at least one register not claimed by a lower id.
    cds_leaf_set_t leaves(const regvec_t& vals);

    size_t size() const { return _entries.size(); }

private:
    void sort();

    CAddressRange _addrs;
    std::vector<CRegisterResultEntry> _entries;
};
