#include "modbus/config/modbus_device_dynamic_config.h"

#include <cassert>

CModbusParamDynamicConfig*
CModbusDeviceDynamicConfig::get_register(const CParamRegisterMapping* m) {
    assert(m != nullptr);
    return &_registers[m];
}

CModbusParamDynamicConfig*
CModbusDeviceDynamicConfig::get_discrete(const CParamDiscreteMapping* m) {
    assert(m != nullptr);
    return &_discretes[m];
}
