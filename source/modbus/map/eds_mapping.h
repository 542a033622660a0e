#pragma once
// One parsed EDS mapping file: its register, discrete and event mappings, each indexed by
// the address range it occupies.
//
// Every node is one mapping. A node with "EventIndex" is an event mapping; else one whose
// "Discrete" is "true" is a discrete mapping; else (absent or "false") a register mapping.
// Discrete and register mappings share one id sequence, 1, 2, 3, ... in file order.
//
// A lookup returns every mapping that shares an address with the range asked for, in
// first-address order (CIntervalIndex). Overlapping mappings of one kind are legal:
// where they overlap the lower id (the earlier node) wins, which the result sets decide;
// warn_overlaps() names each pair.
//
// Every value that has a meaning loads with that meaning. While the file loads, the
// spellings that are likely mistakes are warned about, with the meaning taken: a key no
// mapping reads (a misspelt "Multipler"), a yes/no key that is neither "true" nor "false"
// ("NegateValue = True" does not negate), a switch that is neither "0" nor "1"
// ("Endianness = big" swaps), a negative scale on an unsigned value, an event older than
// the queue keeps. With `strict` each of them is an error instead.
//
// The object is complete after construction and never changes; it may be shared read-only.
#include "modbus/address_range/interval_index.h"
#include "modbus/map/event_mapping.h"
#include "modbus/map/param_discrete_mapping.h"
#include "modbus/map/param_register_mapping.h"

#include "toolkit/eds.h"

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

class CEdsMapping {
public:
    typedef CIntervalIndex<CParamRegisterMapping> register_map_t;
    typedef CIntervalIndex<CParamDiscreteMapping> discrete_map_t;
    typedef CIntervalIndex<CEventMapping> event_map_t;
    typedef register_map_t::iterrange_t register_iterrange_t;
    typedef discrete_map_t::iterrange_t discrete_iterrange_t;
    typedef event_map_t::iterrange_t event_iterrange_t;

    // Parses the file; throws CError, with one line that starts with "Error parsing EDS
    // file: '<path>'" and names the line, section, key and reason, when it cannot be opened
    // or read, when any node is not a valid mapping, and with `strict` at the first likely
    // mistake. The warnings about likely mistakes are logged as the file loads.
    explicit CEdsMapping(const tk_string& path, bool strict = false);

    // r must have first <= second.
    register_iterrange_t get_register_mappings(CAddressRange r) const;
    discrete_iterrange_t get_discrete_mappings(CAddressRange r) const;
    event_iterrange_t get_event_mappings(CAddressRange r) const;

    // Warns once about each pair of overlapping register or discrete mappings, naming both
    // lines and which one wins; returns how many pairs. For start-up and checks, which call
    // it once per file; a tool that only reads the map need not.
    size_t warn_overlaps() const;

    // The largest "EventIndex" of the file, at most CEventMapping::max_events - 1; 0
    // without event mappings.
    size_t max_event_index() const;

    // The node's "Address" extended to naddrs consecutive addresses; fails
    // (CMapUtil::fail) when the key is missing or the range leaves 0 to 65535.
    static CAddressRange get_addrs(const toolkit::node_map_t& node, size_t naddrs);

private:
    // A mapping read but not indexed yet, with where it came from for the overlap warnings.
    template <class T> struct pending_t {
        CAddressRange addrs;
        std::unique_ptr<T> mapping;
        tk_string label;
        unsigned line;
    };
    template <class T> using pendvec_t = std::vector<pending_t<T>>;

    static void add_event_mapping(const toolkit::node_map_t& node, pendvec_t<CEventMapping>& out);
    static void add_discrete_mapping(const toolkit::node_map_t& node, size_t id,
                                     pendvec_t<CParamDiscreteMapping>& out);
    static void add_register_mapping(const toolkit::node_map_t& node, size_t id,
                                     pendvec_t<CParamRegisterMapping>& out);
    // Warns about (strict: fails at) the likely mistakes of node, in file order.
    static void check_spellings(const toolkit::node_map_t& node, bool strict);
    // Notes each pair of overlapping items for warn_overlaps (`what`: "registers",
    // "discretes"; nullptr: none), then builds the index.
    template <class T>
    CIntervalIndex<T> index(const tk_string& path, const char* what, pendvec_t<T>& items);

    std::vector<tk_string> _overlaps; // one warning per overlapping pair
    register_map_t _registers;
    discrete_map_t _discretes;
    event_map_t _events;
};
