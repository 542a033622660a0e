#pragma once
// Fixed-length text ("DATATYPE_STRING"), two characters per register, high byte first; at
// offset 8 the first character sits in the low byte of register 0.
//
// Toward the registers a shorter text is padded with zero bytes and a longer one cut at the
// last register: the field holds two bytes per register (one less at offset 8), one more
// than "Size" when the size is odd. Back from the registers "Size" characters are read and a
// zero byte ends the text.
#include "modbus/map/register_mapping.h"

class CStringMapping : public CRegisterMapping {
public:
    // Throws CError without a "Size" or with an offset other than 0 or 8.
    explicit CStringMapping(const toolkit::node_map_t& node);

    CProfileMapping reverse_map(const toolkit::CElement& el, const tk_string& units,
                                const CModbusParamDynamicConfig& cfg) const override;
    bool translate(const toolkit::CElement& el, const CModbusParamDynamicConfig& cfg,
                   mbreg_t* out) const override;
    bool translate(const mbreg_t* regs, const CModbusParamDynamicConfig& cfg,
                   toolkit::CElement& out) const override;
};
