#pragma once
// Integers of 1 to 4 bytes, signed ("DATATYPE_INT") or unsigned ("DATATYPE_UINT").
//
// Toward the registers the value is scaled by "Multiplier" then "Divider" (0: none) and, when
// both the mapping's "Units" and the parameter's current units are set, converted by their
// ratio. Back from the registers the divider multiplies and the multiplier divides, in the
// mapping's signedness. The units ratio is (parameter units -> mapping units) in both
// directions, and an unsigned integer value with a units ratio skips the multiplier and
// divider: both kept as the device always did them.
//
// Layout: at offset 0 the bytes fill the registers from the high byte of register 0; at
// offset 8 the most significant byte sits in the low byte of register 0. A signed value
// shorter than 4 bytes is sign-extended when read back. One byte at offset 0 and two bytes
// at offset 8 are not supported layouts: the constructor refuses them, and translating
// them stays an assertion.
#include "modbus/map/register_mapping.h"

class CIntMapping : public CRegisterMapping {
public:
    // Fails (CMapUtil::fail) for an offset other than 0 or 8, a missing "Size" or one above
    // 4, one of the two unsupported layouts, a "Multiplier" or "Divider" below 1, or "Units"
    // the store does not know.
    explicit CIntMapping(const toolkit::node_map_t& node);

    CProfileMapping reverse_map(const toolkit::CElement& el, const tk_string& units,
                                const CModbusParamDynamicConfig& cfg) const override;
    bool translate(const toolkit::CElement& el, const CModbusParamDynamicConfig& cfg,
                   mbreg_t* out) const override;
    bool translate(const mbreg_t* regs, const CModbusParamDynamicConfig& cfg,
                   toolkit::CElement& out) const override;
    bool translate_float(const mbreg_t* regs, const CModbusParamDynamicConfig& cfg,
                         toolkit::CElement& out) const override;

    bool is_signed() const { return _signed; }
    int32_t multiplier() const { return _multiplier; }
    int32_t divider() const { return _divider; }
    int units() const { return _units; }

private:
    // The 32-bit value the registers carry for el.
    uint32_t scaled(const toolkit::CElement& el, double factor) const;
    // The register value as a number: the low _size bytes, sign-extended when signed.
    uint32_t field(uint32_t raw) const;
    // The field of the natural-order registers at regs, before scaling.
    uint32_t read_field(const mbreg_t* regs) const;
    void check_layout() const;

    bool _signed = false;
    int32_t _multiplier = 0;
    int32_t _divider = 0;
    int _units = KVR_UNITS_NONE;
    tk_string _units_text;
};
