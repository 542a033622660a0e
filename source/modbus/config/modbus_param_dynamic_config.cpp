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
    if (_updated)
        return;
    if (const CCdsLeaf* writable = read_leaf(leaves, param_path + "/Writable")) {
        if (writable->_element.is_bool())
            _writable = writable->_element.to_bool();
    }
    if (const CCdsLeaf* units = read_leaf(leaves, param_path + "/Units")) {
        const int u = kvr_units_str_to_enum(units->_element.str().c_str());
        _units = u == KVR_UNITS_UNKNOWN ? KVR_UNITS_NONE : u;
    }
    _updated = true;
}
