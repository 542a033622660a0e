#pragma once
// A parameter on one or more consecutive registers, through the translator that the node's
// "ExternalValueType" selects. Owns its translator.
#include "modbus/map/param_mapping.h"
#include "modbus/map/register_mapping.h"

#include <memory>

class CParamRegisterMapping : public CParamMapping {
public:
    // Throws CError for a bad "Name" or a translator that cannot be built.
    CParamRegisterMapping(const toolkit::node_map_t& node, size_t id);

    // The translator's to_registers and from_registers: reg_count() registers at out or
    // regs, with the swaps applied; false when the translator refuses.
    bool to_registers(const toolkit::CElement& el, const CModbusParamDynamicConfig& cfg,
                      mbreg_t* out) const;
    bool from_registers(const mbreg_t* regs, const CModbusParamDynamicConfig& cfg,
                        toolkit::CElement& out, bool float_leaf = false) const;
    size_t reg_count() const;

    const CRegisterMapping& mapping() const;

private:
    std::unique_ptr<CRegisterMapping> _mapping;
};
