#include "modbus/map/eds_mapping.h"
#include "modbus/map/map_util.h"
#include "util/generic_err.h"
#include "util/log.h"

#include <cassert>
#include <cstdint>
#include <memory>

CEdsMapping::CEdsMapping(const tk_string& path) {
    LOG_STACK();
    toolkit::CEds eds;
    if (eds.open(path) != 0) {
        LOG_ERR(SS_MAPPING, 1, "Can't open EDS file '%s'", path.c_str());
        LOG_ERR(SS_MAPPING, 1, "%s", eds.error().c_str());
        throw generic_err();
    }
    size_t id = 1;
    for (;;) {
        toolkit::node_map_t node;
        const int result = eds.next_node(node);
        if (result > 0)
            break;
        if (result < 0) {
            LOG_ERR(SS_MAPPING, 1, "Encountered error while processing '%s'", path.c_str());
            LOG_ERR(SS_MAPPING, 1, "%s", eds.error().c_str());
            throw generic_err();
        }
        if (node.count("EventIndex")) {
            add_event_mapping(node);
            continue;
        }
        const auto idiscrete = node.find("Discrete");
        if (idiscrete != node.end() && idiscrete->second == "true")
            add_discrete_mapping(node, id++);
        else
            add_register_mapping(node, id++);
    }
}

CAddressRange CEdsMapping::get_addrs(const toolkit::node_map_t& node, size_t naddrs) {
    LOG_STACK();
    assert(naddrs > 0);
    const auto it = node.find("Address");
    if (it == node.end()) {
        LOG_ERR(SS_MAPPING, 1, "No address specified for mapping");
        throw generic_err();
    }
    const long a = CMapUtil::num(it);
    if (static_cast<unsigned long>(a) >= 65536) {
        LOG_ERR(SS_MAPPING, 1, "Address %ld is invalid", a);
        throw generic_err();
    }
    const int64_t last = static_cast<int64_t>(a) + static_cast<int64_t>(naddrs) - 1;
    if (last < a || last >= 65536) {
        LOG_ERR(SS_MAPPING, 1, "Address range (%ld, %lld) is invalid", a,
                static_cast<long long>(last));
        throw generic_err();
    }
    return CAddressRange(static_cast<regaddr_t>(a), static_cast<regaddr_t>(last));
}

void CEdsMapping::add_event_mapping(toolkit::node_map_t& node) {
    auto mapping = std::make_unique<CEventMapping>(node);
    const size_t nregs = mapping->reg_count();
    assert(nregs > 0);
    const CAddressRange addr = get_addrs(node, nregs);
    LOG_DEBUG(SS_MAPPING, 9, "Event mapping: [%u .. %u]", addr.first, addr.second);
    _events.insert(addr, std::move(mapping));
}

void CEdsMapping::add_discrete_mapping(toolkit::node_map_t& node, size_t id) {
    auto mapping = std::make_unique<CParamDiscreteMapping>(node, id);
    const CAddressRange addr = get_addrs(node, 1);
    LOG_DEBUG(SS_MAPPING, 9, "Discrete mapping: addr.first [%u]", addr.first);
    _discretes.insert(addr, std::move(mapping));
}

void CEdsMapping::add_register_mapping(toolkit::node_map_t& node, size_t id) {
    auto mapping = std::make_unique<CParamRegisterMapping>(node, id);
    const size_t nregs = mapping->reg_count();
    assert(nregs > 0);
    const CAddressRange addr = get_addrs(node, nregs);
    LOG_DEBUG(SS_MAPPING, 9, "Register mapping: addr.first/second [%u .. %u]", addr.first,
              addr.second);
    _registers.insert(addr, std::move(mapping));
}

CEdsMapping::register_iterrange_t CEdsMapping::get_register_mappings(CAddressRange r) const {
    LOG_STACK();
    const auto range = _registers.equal_range(r);
    return register_iterrange_t(range.begin(), range.end());
}

CEdsMapping::discrete_iterrange_t CEdsMapping::get_discrete_mappings(CAddressRange r) const {
    LOG_STACK();
    const auto range = _discretes.equal_range(r);
    return discrete_iterrange_t(range.begin(), range.end());
}

CEdsMapping::event_iterrange_t CEdsMapping::get_event_mappings(CAddressRange r) const {
    LOG_STACK();
    const auto range = _events.equal_range(r);
    return event_iterrange_t(range.begin(), range.end());
}

size_t CEdsMapping::max_event_index() const {
    LOG_STACK();
    size_t max = 0;
    for (const auto& ev : _events) {
        assert(ev.second != nullptr);
        if (ev.second->index() > max)
            max = ev.second->index();
    }
    return max;
}
