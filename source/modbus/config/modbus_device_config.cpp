#include "modbus/config/modbus_device_config.h"

#include <cassert>
#include <iterator>

CModbusDeviceConfig::CModbusDeviceConfig(const tk_string& path, const eds_mapvec_t& edsvec,
                                         bool zero_fill)
    : _path(path), _eds(edsvec), _zero_fill(zero_fill) {}

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
