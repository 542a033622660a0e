#pragma once
// One parsed EDS mapping file: its register, discrete and event mappings, each indexed by
// the address range it occupies.
//
// Every node is one mapping. A node with "EventIndex" is an event mapping; else one whose
// "Discrete" is exactly "true" is a discrete mapping; else a register mapping. Discrete and
// register mappings share one id sequence, 1, 2, 3, ... in file order.
//
// The indexes order ranges so that overlapping ones are equivalent (CAddressRange): a lookup
// returns every mapping that shares an address with the range asked for, in address order.
// Overlapping mappings in a file are kept, a later one after the earlier ones. The object is
// complete after construction and never changes; it may be shared read-only.
#include "modbus/address_range/address_range.h"
#include "modbus/map/event_mapping.h"
#include "modbus/map/param_discrete_mapping.h"
#include "modbus/map/param_register_mapping.h"

#include "toolkit/eds.h"

#include <boost/ptr_container/ptr_map.hpp>

#include <cstddef>
#include <utility>

class CEdsMapping {
public:
    typedef boost::ptr_multimap<CAddressRange, CParamRegisterMapping> register_map_t;
    typedef boost::ptr_multimap<CAddressRange, CParamDiscreteMapping> discrete_map_t;
    typedef boost::ptr_multimap<CAddressRange, CEventMapping> event_map_t;
    typedef std::pair<register_map_t::const_iterator, register_map_t::const_iterator>
        register_iterrange_t;
    typedef std::pair<discrete_map_t::const_iterator, discrete_map_t::const_iterator>
        discrete_iterrange_t;
    typedef std::pair<event_map_t::const_iterator, event_map_t::const_iterator> event_iterrange_t;

    // Parses the file; throws generic_err, after logging why, when it cannot be opened or
    // read, or when any node is not a valid mapping.
    explicit CEdsMapping(const tk_string& path);

    register_iterrange_t get_register_mappings(CAddressRange r) const;
    discrete_iterrange_t get_discrete_mappings(CAddressRange r) const;
    event_iterrange_t get_event_mappings(CAddressRange r) const;

    // The largest "EventIndex" of the file; 0 without event mappings.
    size_t max_event_index() const;

    // The node's "Address" extended to naddrs consecutive addresses; throws generic_err,
    // after logging why, when the key is missing or the range leaves 0 to 65535.
    static CAddressRange get_addrs(const toolkit::node_map_t& node, size_t naddrs);

private:
    void add_event_mapping(toolkit::node_map_t& node);
    void add_discrete_mapping(toolkit::node_map_t& node, size_t id);
    void add_register_mapping(toolkit::node_map_t& node, size_t id);

    register_map_t _registers;
    discrete_map_t _discretes;
    event_map_t _events;
};
