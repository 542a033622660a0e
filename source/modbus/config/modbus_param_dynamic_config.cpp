#include "modbus/config/modbus_param_dynamic_config.h"

namespace {

const CCdsLeaf* read_leaf(const cds_leaf_set_t& leaves, const tk_string& path) {
    const auto it = leaves.find(CCdsLeaf(path));
    if (it == leaves.end() || it->_status != API_STATUS_OK || !it->_element.has_value())
        return nullptr;
    return &*it;
}

} // namespace

void CModbusParamDynamicConfig::add_paths(const tk_string& param_path,
                                          cds_leaf_set_t& leaves) const {
    if (_updated)
        return;
    leaves.emplace(param_path + "/Writable");
    leaves.emplace(param_path + "/Units");
}

void CModbusParamDynamicConfig::update(const tk_string& param_path, const cds_leaf_set_t& leaves) {
    const CCdsLeaf* writable = read_leaf(leaves, param_path + "/Writable");
    const CCdsLeaf* units = read_leaf(leaves, param_path + "/Units");
    take(writable ? &writable->_element : nullptr, units ? &units->_element : nullptr);
}

void CModbusParamDynamicConfig::update(const toolkit::CLeafValue& writable,
                                       const toolkit::CLeafValue& units) {
    const auto usable = [](const toolkit::CLeafValue& v) {
        return v.status == API_STATUS_OK && v.value.has_value() ? &v.value : nullptr;
    };
    take(usable(writable), usable(units));
}

void CModbusParamDynamicConfig::take(const toolkit::CElement* writable,
                                     const toolkit::CElement* units) {
    if (_updated)
        return;
    if (writable && writable->is_bool())
        _writable = writable->to_bool();
    if (units) {
        const int u = kvr_units_str_to_enum(units->str().c_str());
        _units = u == KVR_UNITS_UNKNOWN ? KVR_UNITS_NONE : u;
    }
    _updated = true;
}
