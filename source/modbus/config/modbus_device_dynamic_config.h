#pragma once
// The run-time attributes of one unit's parameters, one entry per mapping, created on first
// use with the defaults and filled in by the first read that fetches them.
//
// Entries are keyed by the mapping's address: a mapping lives as long as the parsed file
// that owns it, which outlives the device configuration holding this object. A returned
// pointer stays valid for the life of this object. Used by the main thread only.
#include "modbus/config/modbus_param_dynamic_config.h"

#include <unordered_map>

class CParamRegisterMapping;
class CParamDiscreteMapping;

class CModbusDeviceDynamicConfig {
public:
    CModbusDeviceDynamicConfig() = default;
    CModbusDeviceDynamicConfig(const CModbusDeviceDynamicConfig&) = delete;
    CModbusDeviceDynamicConfig& operator=(const CModbusDeviceDynamicConfig&) = delete;

    CModbusParamDynamicConfig* get_register(const CParamRegisterMapping* m);
    CModbusParamDynamicConfig* get_discrete(const CParamDiscreteMapping* m);

    size_t register_count() const { return _registers.size(); }
    size_t discrete_count() const { return _discretes.size(); }

private:
    // Node-based maps: elements keep their address when the table grows.
    std::unordered_map<const CParamRegisterMapping*, CModbusParamDynamicConfig> _registers;
    std::unordered_map<const CParamDiscreteMapping*, CModbusParamDynamicConfig> _discretes;
};
