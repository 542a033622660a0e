#include "modbus/map/param_register_mapping.h"
#include "util/log.h"

#include <cassert>

CParamRegisterMapping::CParamRegisterMapping(const toolkit::node_map_t& node, size_t id)
    : CParamMapping(node, id) {
    LOG_STACK();
    LOG_DEBUG(SS_MAPPING, 9, "Creating register mapping for '%s'", path().c_str());
    _mapping = CRegisterMapping::create(node);
}

bool CParamRegisterMapping::to_registers(const toolkit::CElement& el,
                                         const CModbusParamDynamicConfig& cfg, mbreg_t* out) const {
    LOG_STACK();
    assert(_mapping);
    return _mapping->to_registers(el, cfg, out);
}

bool CParamRegisterMapping::from_registers(const mbreg_t* regs,
                                           const CModbusParamDynamicConfig& cfg,
                                           toolkit::CElement& out, bool float_leaf) const {
    LOG_STACK();
    assert(_mapping);
    return _mapping->from_registers(regs, cfg, out, float_leaf);
}

size_t CParamRegisterMapping::reg_count() const {
    assert(_mapping);
    return _mapping->reg_count();
}

const CRegisterMapping& CParamRegisterMapping::mapping() const {
    assert(_mapping);
    return *_mapping;
}
