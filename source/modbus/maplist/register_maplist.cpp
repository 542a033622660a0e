#include "modbus/maplist/register_maplist.h"
#include "modbus/maplist/register_result_set.h"
#include "util/generic_err.h"
#include "util/log.h"

#include <cassert>

namespace {

const CCdsLeaf& read_leaf(const cds_leaf_set_t& leaves, const tk_string& path) {
    const auto ileaf = leaves.find(CCdsLeaf(path));
    assert(ileaf != leaves.end());
    return *ileaf;
}

} // namespace

CRegisterMaplist::CRegisterMaplist(const CAddressRange& addrs, bool zero_fill)
    : _addrs(addrs), _zero_fill(zero_fill) {}

void CRegisterMaplist::add(const register_iterrange_t& range) {
    _register_ranges.push_back(range);
}

void CRegisterMaplist::add(const event_iterrange_t& range) {
    _event_ranges.push_back(range);
}

void CRegisterMaplist::get_dynamic_cfg(CModbusDeviceDynamicConfig& cfg) {
    LOG_STACK();
    _configs.clear();
    for (const auto& range : _register_ranges)
        for (auto it = range.first; it != range.second; ++it)
            _configs.push_back(cfg.get_register(it->second));
}

CModbusParamDynamicConfig* CRegisterMaplist::config(size_t i) const {
    assert(i < _configs.size());
    CModbusParamDynamicConfig* cfg = _configs[i];
    assert(cfg != nullptr);
    return cfg;
}

cds_leaf_set_t CRegisterMaplist::get_paths(bool mappings, bool configs) const {
    LOG_STACK();
    assert(mappings || configs);
    cds_leaf_set_t leaves;
    size_t cfgcnt = 0;
    for (const auto& range : _register_ranges) {
        for (auto it = range.first; it != range.second; ++it, ++cfgcnt) {
            if (mappings)
                leaves.emplace(it->second->path());
            if (configs)
                config(cfgcnt)->add_paths(it->second->param_path(), leaves);
        }
    }
    return leaves;
}

void CRegisterMaplist::update_configs(const cds_leaf_set_t& leaves) const {
    LOG_STACK();
    size_t cfgcnt = 0;
    for (const auto& range : _register_ranges)
        for (auto it = range.first; it != range.second; ++it, ++cfgcnt)
            config(cfgcnt)->update(it->second->param_path(), leaves);
}

regvec_t CRegisterMaplist::translate_vals(const cds_leaf_set_t& leaves,
                                          const CEventQueue& events) const {
    LOG_STACK();
    CRegisterResultSet result(_addrs);
    size_t cfgcnt = 0;
    for (const auto& range : _register_ranges) {
        for (auto it = range.first; it != range.second; ++it, ++cfgcnt) {
            assert(it->first.second >= _addrs.first);
            assert(it->second != nullptr);
            const CModbusParamDynamicConfig* cfg = config(cfgcnt);
            const CCdsLeaf& leaf = read_leaf(leaves, it->second->path());
            if (leaf._status == API_STATUS_OK)
                result.add(it->first, it->second, &leaf, cfg);
        }
    }
    return result.translate(events, _zero_fill);
}

template <class F>
void CRegisterMaplist::for_each_writable(const cds_leaf_set_t& leaves, F f) const {
    size_t cfgcnt = 0;
    for (const auto& range : _register_ranges) {
        for (auto it = range.first; it != range.second; ++it, ++cfgcnt) {
            assert(it->first.second >= _addrs.first);
            assert(it->second != nullptr);
            const CModbusParamDynamicConfig* cfg = config(cfgcnt);
            if (!cfg->writable())
                continue;
            if (read_leaf(leaves, it->second->path())._status == API_STATUS_OK)
                f(it->first, it->second, cfg);
        }
    }
}

int CRegisterMaplist::check_range(const cds_leaf_set_t& leaves, const regvec_t&) const {
    LOG_STACK();
    size_t last = 0;
    for_each_writable(leaves, [&](const CAddressRange& addr, const CParamRegisterMapping*,
                                  const CModbusParamDynamicConfig*) { last = addr.size(); });
    if (last == 0)
        return -1;
    // Padded to `last` registers, the write must still end at or below 0xFFFF.
    if (_addrs.first + last - 1 > 0xFFFFu) {
        LOG_DEBUG(SS_MAPLIST, 4, "%zu registers from %u pass the last address", last, _addrs.first);
        return -1;
    }
    return static_cast<int>(last);
}

cds_leaf_set_t CRegisterMaplist::get_vals(const cds_leaf_set_t& leaves,
                                          const regvec_t& vals) const {
    LOG_STACK();
    if (vals.empty() || _addrs.first + vals.size() - 1 > 0xFFFFu) {
        LOG_DEBUG(SS_MAPLIST, 4, "%zu registers from %u do not fit the address space", vals.size(),
                  _addrs.first);
        throw generic_err();
    }
    const CAddressRange addrs(_addrs.first, static_cast<regaddr_t>(_addrs.first + vals.size() - 1));
    CRegisterResultSet result(addrs);
    for_each_writable(leaves,
                      [&](const CAddressRange& addr, const CParamRegisterMapping* param,
                          const CModbusParamDynamicConfig* cfg) { result.add(addr, param, cfg); });
    return result.leaves(vals);
}
