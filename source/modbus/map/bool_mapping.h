#pragma once
// One bit of one register ("DATATYPE_BOOL"). "BitOffset" counts from the most significant
// bit: offset 0 is 0x8000, offset 15 is 0x0001. The other bits read as 0.
//
// Only offsets 0 and 8 get past the parser's register count; the translation itself works
// for any offset.
#include "modbus/map/register_mapping.h"

class CBoolMapping : public CRegisterMapping {
public:
    // "Size" defaults to 1; a size that would span more than one register throws CError.
    explicit CBoolMapping(const toolkit::node_map_t& node);

    CProfileMapping reverse_map(const toolkit::CElement& el, const tk_string& units,
                                const CModbusParamDynamicConfig& cfg) const override;
    bool translate(const toolkit::CElement& el, const CModbusParamDynamicConfig& cfg,
                   mbreg_t* out) const override;
    bool translate(const mbreg_t* regs, const CModbusParamDynamicConfig& cfg,
                   toolkit::CElement& out) const override;

private:
    mbreg_t mask() const;
};
