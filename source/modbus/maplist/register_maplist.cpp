#include "modbus/maplist/register_maplist.h"
#include "util/log.h"

#include <cassert>

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
