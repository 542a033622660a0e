#pragma once
// One unit's mappings with their store leaves resolved: every parameter's value leaf and its
// "Writable" and "Units" leaves become ids of a CLeafTable when the unit is configured, so that
// a request finds its leaves by two binary searches and a walk, with no path built, hashed or
// allocated.
//
// Mappings stay indexed per mapping file, in the unit's file order, because the rules that pick
// between overlapping mappings go by (mapping id, file order): a walk over the files in order,
// each in first-address order, is the walk order those rules were written for.
//
// The run-time attributes (writable, units) live in the entries; they are filled in by the first
// request that reads them, on the thread that serves requests.
#include "modbus/address_range/interval_index.h"
#include "modbus/map/eds_mapping.h"
#include "modbus/map/modbus_param_dynamic_config.h"

#include "toolkit/leaf_table.h"

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

// A mapping of one kind with its addresses and leaves.
template <class M> struct CResolvedMapping {
    CAddressRange addr;
    const M* mapping;
    size_t id; // the mapping's id, for the overlap rules
    toolkit::leaf_id_t value;
    toolkit::leaf_id_t writable;
    toolkit::leaf_id_t units;
    // Filled in by the first request that reads the attributes.
    mutable CModbusParamDynamicConfig cfg;
    // A discrete mapping's NegateValue, beside its leaf: a read of 2000 coils then packs
    // its bits without touching 2000 mapping objects. False for registers.
    bool negate;
};

typedef CResolvedMapping<CParamRegisterMapping> resolved_register_t;
typedef CResolvedMapping<CParamDiscreteMapping> resolved_discrete_t;

// One file's mappings of one kind, in one array in first-address order (file order among
// equal addresses), so that the walk of a request reads memory in sequence.
template <class M> class CResolvedIndex {
public:
    typedef CResolvedMapping<M> item_t;
    typedef CIntervalIndex<item_t> index_t;

    CResolvedIndex() = default;
    // The index finds the positions; the items are copied out of it into one array.
    explicit CResolvedIndex(index_t index) : _index(std::move(index)) {
        _items.reserve(_index.entries().size());
        for (const auto& entry : _index.entries())
            _items.push_back(*entry.second);
    }

    // The positions [first, second) of items() that may overlap r (r.first <= r.second);
    // items in it that end before r.first are nested in a longer one and must be skipped.
    std::pair<size_t, size_t> slice(const CAddressRange& r) const { return _index.slice(r); }
    const std::vector<item_t>& items() const { return _items; }

private:
    index_t _index;
    std::vector<item_t> _items;
};

class CUnitMap {
public:
    typedef CResolvedIndex<CParamRegisterMapping> register_index_t;
    typedef CResolvedIndex<CParamDiscreteMapping> discrete_index_t;

    // The device's identification, which functions 17 and 43 read from
    // "<device>/Identification/<name>/Value". The first seven are the device identification
    // objects 0 to 6 of function 43, in their order.
    enum identity_t {
        ID_VENDOR_NAME,
        ID_PRODUCT_CODE,
        ID_REVISION,
        ID_VENDOR_URL,
        ID_PRODUCT_NAME,
        ID_MODEL_NAME,
        ID_APPLICATION_NAME,
        ID_SERVER_ID,
        ID_RUN_INDICATOR,
        ID_DESCRIPTION,
        ID_COUNT
    };
    static const char* const identity_names[ID_COUNT];

    // Resolves every register and discrete mapping of the files (in the unit's order) under
    // device_path into table.
    CUnitMap(const tk_string& device_path, const std::vector<const CEdsMapping*>& files,
             toolkit::CLeafTable& table);
    CUnitMap(const CUnitMap&) = delete;
    CUnitMap& operator=(const CUnitMap&) = delete;

    // One index per file, in the unit's file order.
    const std::vector<register_index_t>& registers() const { return _registers; }
    const std::vector<discrete_index_t>& discretes() const { return _discretes; }
    // The unit's mapping files, in its order (for the event mappings, which have no leaves).
    const std::vector<const CEdsMapping*>& files() const { return _files; }
    // The identification leaves, in identity_t order.
    const std::vector<toolkit::leaf_id_t>& identity() const { return _identity; }

private:
    std::vector<register_index_t> _registers;
    std::vector<discrete_index_t> _discretes;
    std::vector<toolkit::leaf_id_t> _identity;
    std::vector<const CEdsMapping*> _files;
};
