#pragma once
// Single-precision floats ("DATATYPE_FLOAT", "Size" 4) as their IEEE 754 bit pattern.
//
// At offset 0 the pattern fills two registers, most significant half first; at offset 8 it
// spans three, starting in the low byte of register 0. Scaling as for integers
// ("Multiplier" and "Divider" multiply and divide toward the registers, the other way
// back). The units ratio is (parameter -> mapping) toward the registers and
// (mapping -> parameter) back.
#include "modbus/map/register_mapping.h"

class CFloatMapping : public CRegisterMapping {
public:
    // Throws CError unless "Size" is 4 and the offset 0 or 8, and for a zero
    // "Multiplier" or "Divider" or unknown "Units".
    explicit CFloatMapping(const toolkit::node_map_t& node);

    CProfileMapping reverse_map(const toolkit::CElement& el, const tk_string& units,
                                const CModbusParamDynamicConfig& cfg) const override;
    bool translate(const toolkit::CElement& el, const CModbusParamDynamicConfig& cfg,
                   mbreg_t* out) const override;
    bool translate(const mbreg_t* regs, const CModbusParamDynamicConfig& cfg,
                   toolkit::CElement& out) const override;

    float multiplier() const { return _multiplier; }
    float divider() const { return _divider; }
    int units() const { return _units; }

private:
    float scaled(const toolkit::CElement& el, double factor) const;

    float _multiplier = 0.0f;
    float _divider = 0.0f;
    int _units = KVR_UNITS_NONE;
    tk_string _units_text;
};
