#include "modbus/map/eds_mapping.h"
#include "modbus/map/map_util.h"
#include "util/error.h"
#include "util/log.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

// Every key some mapping reads.
const char* const known_keys[] = {
    "Name",      "Address",     "ExternalValueType", "Size",          "BitOffset", "Endianness",
    "WordOrder", "Multiplier",  "Divider",           "Units",         "DateSpec",  "Timestamp",
    "Discrete",  "NegateValue", "EventIndex",        "EventProperty",
};

bool known_key(const tk_string& key) {
    for (const char* k : known_keys)
        if (key == k)
            return true;
    return false;
}

// A likely mistake found at a key: what is wrong, and the meaning the value is given.
struct mistake_t {
    unsigned line;
    const char* key;
    tk_string why;
    tk_string taken;
};

// "true"/"false" keys: anything but "true" is false.
void check_yes_no(const toolkit::node_map_t& node, const char* key, const char* does,
                  const char* taken, std::vector<mistake_t>& out) {
    const auto it = node.find(key);
    if (it != node.end() && it->second != "true" && it->second != "false")
        out.push_back({node.line_of(key), key, tk_string("only \"true\" ") + does, taken});
}

// "0"/"1" keys: any other non-empty text is on, an empty one off.
void check_switch(const toolkit::node_map_t& node, const char* key, const char* on,
                  const char* off, std::vector<mistake_t>& out) {
    const auto it = node.find(key);
    if (it == node.end() || it->second == "0" || it->second == "1")
        return;
    const bool set = !it->second.empty();
    out.push_back({node.line_of(key), key, set ? "neither 0 nor 1" : "empty",
                   tk_string(set ? "taken as 1: " : "taken as 0: ") + (set ? on : off)});
}

// A number as the mapping files write it, or false.
bool parse_index(const tk_string& text, unsigned long long& out) {
    char* end = nullptr;
    errno = 0;
    out = std::strtoull(text.c_str(), &end, 0);
    return !text.empty() && text[0] != '-' && *end == '\0' && errno == 0;
}

} // namespace

void CEdsMapping::check_spellings(const toolkit::node_map_t& node, bool strict) {
    std::vector<mistake_t> found;
    for (const auto& kv : node)
        if (!known_key(kv.first))
            found.push_back({node.line_of(kv.first), kv.first.c_str(), "unknown key", "ignored"});
    const bool event = node.count("EventIndex") != 0;
    if (!event)
        check_yes_no(node, "Discrete", "makes a coil or discrete input", "a register mapping",
                     found);
    if (!event && CMapUtil::boolean(node, "Discrete"))
        check_yes_no(node, "NegateValue", "negates", "not negated", found);
    check_switch(node, "Endianness", "the bytes of each register swapped", "bytes not swapped",
                 found);
    check_switch(node, "WordOrder", "registers in reverse order", "registers in order", found);
    check_switch(node, "Timestamp", "the value's time stamp is mapped", "the value is mapped",
                 found);
    const auto type = node.find("ExternalValueType");
    if (!event && type != node.end() && type->second == "DATATYPE_UINT") {
        for (const char* key : {"Multiplier", "Divider"}) {
            const auto it = node.find(key);
            if (it != node.end() && !it->second.empty() && it->second[0] == '-')
                found.push_back({node.line_of(key), key,
                                 "negative on an unsigned value, which wraps around",
                                 "taken as written"});
        }
    }
    unsigned long long index = 0;
    if (event && parse_index(node.find("EventIndex")->second, index) &&
        index >= CEventMapping::max_events)
        found.push_back({node.line_of("EventIndex"), "EventIndex",
                         "older than the " + std::to_string(CEventMapping::max_events) +
                             " newest events the server keeps",
                         "reads as an empty slot"});
    // In file order, whatever order the hash gives.
    std::stable_sort(found.begin(), found.end(),
                     [](const mistake_t& a, const mistake_t& b) { return a.line < b.line; });
    for (const mistake_t& m : found) {
        if (strict)
            CMapUtil::fail(node, m.key, m.why + " (mapping files are strict)");
        CMapUtil::warn(node, m.key, m.why + "; " + m.taken);
    }
}

CEdsMapping::CEdsMapping(const tk_string& path, bool strict) {
    LOG_STACK();
    toolkit::CEds eds;
    if (eds.open(path) != 0)
        throw CError("Error parsing EDS file: '" + path + "': " + eds.error(), SS_MAPPING);
    pendvec_t<CParamRegisterMapping> registers;
    pendvec_t<CParamDiscreteMapping> discretes;
    pendvec_t<CEventMapping> events;
    size_t id = 1;
    for (;;) {
        toolkit::node_map_t node;
        const int result = eds.next_node(node);
        if (result > 0)
            break;
        if (result < 0)
            throw CError("Error parsing EDS file: '" + path + "': " + eds.error(), SS_MAPPING);
        check_spellings(node, strict);
        const bool discrete = CMapUtil::boolean(node, "Discrete");
        if (node.count("EventIndex"))
            add_event_mapping(node, events);
        else if (discrete)
            add_discrete_mapping(node, id++, discretes);
        else
            add_register_mapping(node, id++, registers);
    }
    _registers = index(path, "registers", registers);
    _discretes = index(path, "discretes", discretes);
    _events = index(path, nullptr, events);
}

template <class T>
CIntervalIndex<T> CEdsMapping::index(const tk_string& path, const char* what, pendvec_t<T>& items) {
    std::stable_sort(items.begin(), items.end(), [](const pending_t<T>& a, const pending_t<T>& b) {
        return a.addrs.first < b.addrs.first;
    });
    typename CIntervalIndex<T>::items_t indexed;
    indexed.reserve(items.size());
    for (size_t i = 0; i < items.size(); ++i) {
        const pending_t<T>& a = items[i];
        // Sorted by first address, so the items overlapping a from above follow it.
        for (size_t j = i + 1; what && j < items.size() && items[j].addrs.first <= a.addrs.second;
             ++j) {
            const pending_t<T>& b = items[j];
            const pending_t<T>& early = a.line < b.line ? a : b;
            const pending_t<T>& late = a.line < b.line ? b : a;
            const unsigned last = std::min(a.addrs.second, b.addrs.second);
            _overlaps.push_back(path + ":" + std::to_string(late.line) + ": [" + late.label +
                                "] overlaps [" + early.label + "] (line " +
                                std::to_string(early.line) + ") at " + what + " " +
                                std::to_string(b.addrs.first) + " to " + std::to_string(last) +
                                "; [" + early.label + "] wins there");
        }
        indexed.emplace_back(a.addrs, std::move(items[i].mapping));
    }
    return CIntervalIndex<T>(std::move(indexed));
}

size_t CEdsMapping::warn_overlaps() const {
    for (const tk_string& text : _overlaps)
        LOG_WARN(SS_MAPPING, 0, "%s", text.c_str());
    return _overlaps.size();
}

CAddressRange CEdsMapping::get_addrs(const toolkit::node_map_t& node, size_t naddrs) {
    LOG_STACK();
    assert(naddrs > 0);
    const long a = CMapUtil::num(node, "Address", 0, 65535);
    const int64_t last = static_cast<int64_t>(a) + static_cast<int64_t>(naddrs) - 1;
    if (last >= 65536)
        CMapUtil::fail(node, "Address",
                       "its " + std::to_string(naddrs) + " addresses run past 65535");
    return CAddressRange(static_cast<regaddr_t>(a), static_cast<regaddr_t>(last));
}

void CEdsMapping::add_event_mapping(const toolkit::node_map_t& node,
                                    pendvec_t<CEventMapping>& out) {
    auto mapping = std::make_unique<CEventMapping>(node);
    const size_t nregs = mapping->reg_count();
    assert(nregs > 0);
    const CAddressRange addr = get_addrs(node, nregs);
    LOG_DEBUG(SS_MAPPING, 9, "Event mapping: [%u .. %u]", addr.first, addr.second);
    out.push_back({addr, std::move(mapping), node.label(), node.line()});
}

void CEdsMapping::add_discrete_mapping(const toolkit::node_map_t& node, size_t id,
                                       pendvec_t<CParamDiscreteMapping>& out) {
    auto mapping = std::make_unique<CParamDiscreteMapping>(node, id);
    const CAddressRange addr = get_addrs(node, 1);
    LOG_DEBUG(SS_MAPPING, 9, "Discrete mapping: addr.first [%u]", addr.first);
    out.push_back({addr, std::move(mapping), node.label(), node.line()});
}

void CEdsMapping::add_register_mapping(const toolkit::node_map_t& node, size_t id,
                                       pendvec_t<CParamRegisterMapping>& out) {
    auto mapping = std::make_unique<CParamRegisterMapping>(node, id);
    const size_t nregs = mapping->reg_count();
    assert(nregs > 0);
    const CAddressRange addr = get_addrs(node, nregs);
    LOG_DEBUG(SS_MAPPING, 9, "Register mapping: addr.first/second [%u .. %u]", addr.first,
              addr.second);
    out.push_back({addr, std::move(mapping), node.label(), node.line()});
}

CEdsMapping::register_iterrange_t CEdsMapping::get_register_mappings(CAddressRange r) const {
    return _registers.overlapping(r);
}

CEdsMapping::discrete_iterrange_t CEdsMapping::get_discrete_mappings(CAddressRange r) const {
    return _discretes.overlapping(r);
}

CEdsMapping::event_iterrange_t CEdsMapping::get_event_mappings(CAddressRange r) const {
    return _events.overlapping(r);
}

size_t CEdsMapping::max_event_index() const {
    LOG_STACK();
    size_t max = 0;
    for (const auto& ev : _events.entries()) {
        assert(ev.second != nullptr);
        if (ev.second->index() > max)
            max = ev.second->index();
    }
    return std::min(max, CEventMapping::max_events - 1);
}
