#include "modbus/config/modbus_device_config.h"
#include "modbus/maplist/profile_maplist.h"
#include "util/log.h"

#include <cassert>
#include <iterator>

CModbusDeviceConfig::CModbusDeviceConfig(const tk_string& path, const eds_mapvec_t& edsvec,
                                         bool zero_fill)
    : _path(path), _eds(edsvec), _zero_fill(zero_fill),
      _dynamic(std::make_unique<CModbusDeviceDynamicConfig>()) {}

std::unique_ptr<CDiscreteMaplist> CModbusDeviceConfig::get_discretes(const CAddressRange& r) const {
    LOG_STACK();
    auto list = std::make_unique<CDiscreteMaplist>(r, _zero_fill);
    if (r.second < r.first) {
        LOG_DEBUG(SS_CONFIG, 4, "Discrete range [%u .. %u] wraps", r.first, r.second);
        return list;
    }
    for (const auto& eds : _eds) {
        const auto range = eds->get_discrete_mappings(r);
        if (range.first != range.second)
            list->add(range);
    }
    assert(_dynamic);
    list->get_dynamic_cfg(*_dynamic);
    return list;
}

std::unique_ptr<CRegisterMaplist> CModbusDeviceConfig::get_registers(const CAddressRange& r) const {
    LOG_STACK();
    auto list = std::make_unique<CRegisterMaplist>(r, _zero_fill);
    if (r.second < r.first) {
        LOG_DEBUG(SS_CONFIG, 4, "Register range [%u .. %u] wraps", r.first, r.second);
        return list;
    }
    for (const auto& eds : _eds) {
        const auto registers = eds->get_register_mappings(r);
        if (registers.first != registers.second)
            list->add(registers);
        const auto events = eds->get_event_mappings(r);
        if (events.first != events.second)
            list->add(events);
    }
    assert(_dynamic);
    list->get_dynamic_cfg(*_dynamic);
    return list;
}

std::unique_ptr<CProfileMaplist> CModbusDeviceConfig::get_profile() const {
    return std::make_unique<CProfileMaplist>();
}

size_t CModbusDeviceConfig::mapping_count() const {
    const CAddressRange all = CAddressRange::all_addrs();
    size_t count = 0;
    for (const auto& eds : _eds) {
        const auto registers = eds->get_register_mappings(all);
        const auto discretes = eds->get_discrete_mappings(all);
        const auto events = eds->get_event_mappings(all);
        count += static_cast<size_t>(std::distance(registers.first, registers.second) +
                                     std::distance(discretes.first, discretes.second) +
                                     std::distance(events.first, events.second));
    }
    return count;
}

void CModbusDeviceConfig::resolve(toolkit::CLeafTable& table) {
    std::vector<const CEdsMapping*> files;
    for (const auto& eds : _eds)
        files.push_back(eds.get());
    _unit = std::make_unique<CUnitMap>(_path, files, table);
}

const CUnitMap& CModbusDeviceConfig::unit() const {
    assert(_unit);
    return *_unit;
}
