#include "modbus/maplist/register_result_set.h"
#include "util/generic_err.h"
#include "util/log.h"

#include <algorithm>
#include <cassert>
#include <cstdio>

CRegisterResultEntry::CRegisterResultEntry(const CAddressRange& addr,
                                           const CParamRegisterMapping* param, const CCdsLeaf* leaf,
                                           const CModbusParamDynamicConfig* cfg)
    : _addr(addr), _param(param), _leaf(leaf), _cfg(cfg) {}

CRegisterResultEntry::CRegisterResultEntry(const CAddressRange& addr,
                                           const CParamRegisterMapping* param,
                                           const CModbusParamDynamicConfig* cfg)
    : _addr(addr), _param(param), _cfg(cfg) {}

CRegisterResultEntry::CRegisterResultEntry(const CAddressRange& addr, const CEventMapping* event)
    : _addr(addr), _event(event) {}

size_t CRegisterResultEntry::id() const {
    if (_param != nullptr)
        return _param->id();
    assert(_event != nullptr);
    return 0;
}

tk_string CRegisterResultEntry::name() const {
    if (_param != nullptr)
        return _param->param_path();
    assert(_event != nullptr);
    char text[32];
    std::snprintf(text, sizeof text, "event::%zu", _event->index());
    return text;
}

regvec_t CRegisterResultEntry::translate(const CEventQueue& events) const {
    regvec_t regs(_addr.size(), 0);
    if (_param == nullptr) {
        assert(_event != nullptr);
        assert(_event->reg_count() == regs.size());
        _event->to_registers(events, regs.data());
        return regs;
    }
    assert(_leaf != nullptr);
    assert(_cfg != nullptr);
    assert(_param->reg_count() == regs.size());
    _param->to_registers(_leaf->_element, *_cfg, regs.data());
    return regs;
}

CCdsLeaf CRegisterResultEntry::leaf(const regvec_t& regs) const {
    assert(_param != nullptr);
    assert(_cfg != nullptr);
    assert(_param->reg_count() == regs.size());
    return CCdsLeaf(_param->path(), _param->from_registers(regs.data(), *_cfg));
}

void CRegisterResultSet::add(const CAddressRange& addr, const CParamRegisterMapping* param,
                             const CCdsLeaf* leaf, const CModbusParamDynamicConfig* cfg) {
    _entries.emplace_back(addr, param, leaf, cfg);
}

void CRegisterResultSet::add(const CAddressRange& addr, const CParamRegisterMapping* param,
                             const CModbusParamDynamicConfig* cfg) {
    _entries.emplace_back(addr, param, cfg);
}

void CRegisterResultSet::add(const CAddressRange& addr, const CEventMapping* event) {
    _entries.emplace_back(addr, event);
}

void CRegisterResultSet::sort() {
    std::stable_sort(_entries.begin(), _entries.end(),
                     [](const CRegisterResultEntry& a, const CRegisterResultEntry& b) {
                         return a.id() < b.id();
                     });
}

regvec_t CRegisterResultSet::translate(const CEventQueue& events, bool zero_fill) {
    LOG_STACK();
    sort();
    const size_t nregs = _addrs.size();
    regvec_t result(nregs, 0);
    std::vector<bool> filled(zero_fill ? 0 : nregs, false);
    // From the highest id down, so that lower ids overwrite what they overlap.
    for (auto it = _entries.rbegin(); it != _entries.rend(); ++it) {
        const CRegisterResultEntry& entry = *it;
        const regvec_t r = entry.translate(events);
        const CAddressRange& e = entry.addr();
        assert(r.size() == e.size());
        assert(e.first <= _addrs.second);
        assert(e.second >= _addrs.first);
        const size_t result_start = e.first < _addrs.first ? _addrs.first - e.first : 0;
        const size_t result_end =
            r.size() - (e.second > _addrs.second ? e.second - _addrs.second : 0);
        const size_t retval_start = e.first > _addrs.first ? e.first - _addrs.first : 0;
        const size_t retval_end = nregs - (e.second < _addrs.second ? _addrs.second - e.second : 0);
        assert(result_end > result_start);
        assert((retval_end - retval_start) == (result_end - result_start));
        std::copy(r.begin() + result_start, r.begin() + result_end, result.begin() + retval_start);
        if (!zero_fill)
            std::fill(filled.begin() + retval_start, filled.begin() + retval_end, true);
    }
    if (!zero_fill && std::find(filled.begin(), filled.end(), false) != filled.end()) {
        LOG_DEBUG(SS_MAPLIST, 4, "Unmapped or unreadable registers in [%u .. %u]", _addrs.first,
                  _addrs.second);
        throw generic_err();
    }
    return result;
}

cds_leaf_set_t CRegisterResultSet::leaves(const regvec_t& vals) {
    LOG_STACK();
    assert(vals.size() == _addrs.size());
    sort();
    std::vector<bool> claimed(vals.size(), false);
    cds_leaf_set_t out;
    for (const CRegisterResultEntry& entry : _entries) {
        const CAddressRange& e = entry.addr();
        if (e.first < _addrs.first || e.second > _addrs.second)
            continue;
        const size_t start = e.first - _addrs.first;
        const size_t len = e.size();
        assert(start + len <= _addrs.size());
        bool any = false;
        for (size_t i = start; i < start + len; ++i) {
            if (!claimed[i]) {
                claimed[i] = true;
                any = true;
            }
        }
        if (!any)
            continue;
        out.insert(entry.leaf(regvec_t(vals.begin() + start, vals.begin() + start + len)));
    }
    return out;
}
