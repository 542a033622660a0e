#include "modbus/maplist/discrete_maplist.h"
#include "util/log.h"

#include <cassert>

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
