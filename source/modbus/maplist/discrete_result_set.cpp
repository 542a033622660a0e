#include "modbus/maplist/discrete_result_set.h"
#include "util/generic_err.h"
#include "util/log.h"

#include <algorithm>
#include <cassert>

CDiscreteResultEntry::CDiscreteResultEntry(const CAddressRange& addr,
                                           const CParamDiscreteMapping* param, const CCdsLeaf* leaf)
    : _addr(addr), _param(param), _leaf(leaf) {
    assert(_addr.size() == 1);
    assert(_param != nullptr);
}

bool CDiscreteResultEntry::translate() const {
    assert(_leaf != nullptr);
    return _param->translate(_leaf->_element);
}

CCdsLeaf CDiscreteResultEntry::leaf(bool value) const {
    return CCdsLeaf(_param->path(), _param->translate(value));
}

void CDiscreteResultSet::add(const CAddressRange& addr, const CParamDiscreteMapping* param,
                             const CCdsLeaf* leaf) {
    _entries.emplace_back(addr, param, leaf);
}

void CDiscreteResultSet::add(const CAddressRange& addr, const CParamDiscreteMapping* param) {
    _entries.emplace_back(addr, param);
}

void CDiscreteResultSet::sort() {
    std::stable_sort(_entries.begin(), _entries.end(),
                     [](const CDiscreteResultEntry& a, const CDiscreteResultEntry& b) {
                         return a.id() < b.id();
                     });
}

std::vector<bool> CDiscreteResultSet::translate(bool zero_fill) {
    LOG_STACK();
    sort();
    std::vector<bool> result(_addrs.size(), false);
    std::vector<bool> filled(_addrs.size(), false);
    for (const CDiscreteResultEntry& entry : _entries) {
        assert(entry.addr().size() == 1);
        assert(entry.addr().first >= _addrs.first);
        assert(entry.addr().first <= _addrs.second);
        const size_t i = entry.addr().first - _addrs.first;
        if (filled[i])
            continue;
        filled[i] = true;
        result[i] = entry.translate();
    }
    if (!zero_fill && std::find(filled.begin(), filled.end(), false) != filled.end()) {
        LOG_DEBUG(SS_MAPLIST, 4, "Unmapped or unreadable discretes in [%u .. %u]", _addrs.first,
                  _addrs.second);
        throw generic_err();
    }
    return result;
}

cds_leaf_set_t CDiscreteResultSet::leaves(const std::vector<bool>& vals) {
    LOG_STACK();
    assert(vals.size() == _addrs.size());
    sort();
    std::vector<bool> claimed(_addrs.size(), false);
    cds_leaf_set_t out;
    for (const CDiscreteResultEntry& entry : _entries) {
        assert(entry.addr().first >= _addrs.first);
        assert(entry.addr().first <= _addrs.second);
        const size_t i = entry.addr().first - _addrs.first;
        if (claimed[i])
            continue;
        claimed[i] = true;
        out.insert(entry.leaf(vals[i]));
    }
    return out;
}
