#pragma once
// The bits one discrete request yields, gathered per parameter and then resolved address by
// address: where two parameters claim one address, the lower parameter id wins, and among
// equal ids (mappings of different files) the one added first.
#include "cds/cds_leaf.h"
#include "modbus/address_range/address_range.h"
#include "modbus/map/param_discrete_mapping.h"

#include <vector>

// One parameter's claim on one address: with the leaf read for it (reads) or without
// (writes). Holds pointers only; the mapping and the leaf must outlive it.
class CDiscreteResultEntry {
public:
    CDiscreteResultEntry(const CAddressRange& addr, const CParamDiscreteMapping* param,
                         const CCdsLeaf* leaf = nullptr);

    const CAddressRange& addr() const { return _addr; }
    size_t id() const { return _param->id(); }
    tk_string name() const { return _param->param_path(); }
    // The bit the read leaf stands for; read entries only.
    bool translate() const;
    // The leaf that stores `value` for the parameter.
    CCdsLeaf leaf(bool value) const;

private:
    CAddressRange _addr;
    const CParamDiscreteMapping* _param;
    const CCdsLeaf* _leaf;
};

class CDiscreteResultSet {
public:
    explicit CDiscreteResultSet(const CAddressRange& addrs) : _addrs(addrs) {}

    // Read entry: the address's bit comes from the leaf.
    void add(const CAddressRange& addr, const CParamDiscreteMapping* param, const CCdsLeaf* leaf);
    // Write entry.
    void add(const CAddressRange& addr, const CParamDiscreteMapping* param);

    // One bit per address of the range. Unclaimed addresses are 0 with zero fill, and
    // throw generic_err without it.
    std::vector<bool> translate(bool zero_fill);
    // The leaves that write vals (one per address of the range), one per claimed address.
    cds_leaf_set_t leaves(const std::vector<bool>& vals);

    size_t size() const { return _entries.size(); }

private:
    void sort();

    CAddressRange _addrs;
    std::vector<CDiscreteResultEntry> _entries;
};
