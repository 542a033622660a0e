#include "modbus/maplist/discrete_maplist.h"
#include "modbus/maplist/discrete_result_set.h"
#include "util/log.h"

#include <cassert>

namespace {

const CCdsLeaf& read_leaf(const cds_leaf_set_t& leaves, const tk_string& path) {
    const auto ileaf = leaves.find(CCdsLeaf(path));
    assert(ileaf != leaves.end());
    return *ileaf;
}

} // namespace

CDiscreteMaplist::CDiscreteMaplist(const CAddressRange& addrs, bool zero_fill)
    : _addrs(addrs), _zero_fill(zero_fill) {}

void CDiscreteMaplist::add(const discrete_iterrange_t& range) {
    _ranges.push_back(range);
}

void CDiscreteMaplist::get_dynamic_cfg(CModbusDeviceDynamicConfig& cfg) {
    LOG_STACK();
    _configs.clear();
    for (const auto& range : _ranges)
        for (auto it = range.first; it != range.second; ++it)
            _configs.push_back(cfg.get_discrete(it->second));
}

CModbusParamDynamicConfig* CDiscreteMaplist::config(size_t i) const {
    assert(i < _configs.size());
    CModbusParamDynamicConfig* cfg = _configs[i];
    assert(cfg != nullptr);
    return cfg;
}

cds_leaf_set_t CDiscreteMaplist::get_paths(bool mappings, bool configs) const {
    LOG_STACK();
    assert(mappings || configs);
    cds_leaf_set_t leaves;
    size_t cfgcnt = 0;
    for (const auto& range : _ranges) {
        for (auto it = range.first; it != range.second; ++it, ++cfgcnt) {
            const CParamDiscreteMapping& mapping = *it->second;
            if (mappings) {
                LOG_DEBUG(SS_MAPLIST, 5, "Adding value path: '%s'", mapping.path().c_str());
                leaves.emplace(mapping.path());
            }
            if (configs)
                config(cfgcnt)->add_paths(mapping.param_path(), leaves);
        }
    }
    return leaves;
}

void CDiscreteMaplist::update_configs(const cds_leaf_set_t& leaves) const {
    LOG_STACK();
    size_t cfgcnt = 0;
    for (const auto& range : _ranges)
        for (auto it = range.first; it != range.second; ++it, ++cfgcnt)
            config(cfgcnt)->update(it->second->param_path(), leaves);
}

std::vector<bool> CDiscreteMaplist::translate_vals(const cds_leaf_set_t& leaves) const {
    LOG_STACK();
    CDiscreteResultSet result(_addrs);
    for (const auto& range : _ranges) {
        for (auto it = range.first; it != range.second; ++it) {
            assert(it->first.size() == 1);
            assert(it->first.first >= _addrs.first);
            assert(it->first.first <= _addrs.second);
            const CCdsLeaf& leaf = read_leaf(leaves, it->second->path());
            if (leaf._status == API_STATUS_OK)
                result.add(it->first, it->second, &leaf);
        }
    }
    return result.translate(_zero_fill);
}

cds_leaf_set_t CDiscreteMaplist::get_vals(const cds_leaf_set_t& leaves,
                                          const std::vector<bool>& vals) const {
    LOG_STACK();
    assert(_addrs.size() == vals.size());
    CDiscreteResultSet result(_addrs);
    size_t cfgcnt = 0;
    for (const auto& range : _ranges) {
        for (auto it = range.first; it != range.second; ++it, ++cfgcnt) {
            assert(it->first.size() == 1);
            assert(it->first.first >= _addrs.first);
            assert(it->first.first <= _addrs.second);
            const CParamDiscreteMapping& mapping = *it->second;
            if (!config(cfgcnt)->writable()) {
                LOG_DEBUG(SS_MAPLIST, 4,
                          "Param '%s' isn't writable; skipping as a possible mapping.",
                          mapping.path().c_str());
                continue;
            }
            const CCdsLeaf& leaf = read_leaf(leaves, mapping.path());
            if (leaf._status != API_STATUS_OK) {
                LOG_DEBUG(SS_MAPLIST, 5, "Param '%s' doesn't exist, skipping write...",
                          leaf._path.c_str());
                continue;
            }
            result.add(it->first, &mapping);
        }
    }
    return result.leaves(vals);
}
