#include "modbus/map/modbus_param_dynamic_config.h"

void CModbusParamDynamicConfig::update(const toolkit::CLeafValue& writable,
                                       const toolkit::CLeafValue& units) {
    if (_updated)
        return;
    if (writable.status == API_STATUS_OK && writable.value.is_bool())
        _writable = writable.value.to_bool();
    if (units.status == API_STATUS_OK && units.value.has_value()) {
        const int u = kvr_units_str_to_enum(units.value.str().c_str());
        _units = u == KVR_UNITS_UNKNOWN ? KVR_UNITS_NONE : u;
    }
    _updated = true;
}
