#pragma once
// Base of the register value translators: one data-store value <-> consecutive registers.
//
// The common node keys: "Size" (bytes of the external value, 1 to 65535; 0 when absent, for
// the translator to decide), "BitOffset" (0 to 15, where in the first register the value
// starts), "Endianness" (1: swap the bytes of every register) and "WordOrder" (1: reverse
// the registers). A translator's translate() works in natural order: most significant byte
// first, register 0 first, each register's high byte first. to_registers/from_registers
// apply the swaps around it, so the two are exact inverses as far as the layout goes.
//
// Every translator produces elements stamped with the invalid time, so that the store
// stamps what Modbus writes.
#include "modbus/map/modbus_param_dynamic_config.h"
#include "modbus/map/profile_mapping.h"
#include "modbus/modbus_types.h"

#include "toolkit/eds.h"
#include "toolkit/element.h"

#include <cstddef>
#include <cstdint>
#include <memory>

class CRegisterMapping {
public:
    // The translator named by "ExternalValueType"; fails (CMapUtil::fail) when the key is
    // missing or names no translator, or when the translator rejects the node.
    static std::unique_ptr<CRegisterMapping> create(const toolkit::node_map_t& node);

    // Reads the common keys; fails for a bad "Size", "BitOffset", "Endianness" or
    // "WordOrder". Each translator then refuses the offsets and sizes it cannot lay out.
    explicit CRegisterMapping(const toolkit::node_map_t& node);
    virtual ~CRegisterMapping() = default;

    // The profile row fields that depend on the translator, for the value el whose units
    // the store gives as `units`.
    virtual CProfileMapping reverse_map(const toolkit::CElement& el, const tk_string& units,
                                        const CModbusParamDynamicConfig& cfg) const = 0;
    // Natural-order translation, without the swaps: writes exactly reg_count() registers
    // to out. Allocates nothing. False when the value has no register form (a time without
    // a calendar date); out is then unspecified.
    virtual bool translate(const toolkit::CElement& el, const CModbusParamDynamicConfig& cfg,
                           mbreg_t* out) const = 0;
    // Reads exactly reg_count() natural-order registers from regs into out. False when the
    // registers cannot be written to the parameter (its time stamp, a date that is no time).
    virtual bool translate(const mbreg_t* regs, const CModbusParamDynamicConfig& cfg,
                           toolkit::CElement& out) const = 0;
    // The same for a parameter the store keeps as a floating-point number: a scaled integer
    // keeps its fraction (2351 with Multiplier 10 is 235.1). Others read as translate().
    virtual bool translate_float(const mbreg_t* regs, const CModbusParamDynamicConfig& cfg,
                                 toolkit::CElement& out) const {
        return translate(regs, cfg, out);
    }

    // Registers the value occupies: (size + 1) / 2 at offset 0, (size + 2) / 2 at offset 8.
    // Every translator refuses other offsets when it is built, so any other is a bug.
    size_t reg_count() const;

    // The wire registers for el: writes reg_count() registers to out and applies the byte
    // and word swaps to them in place. Allocates nothing, so that a read request costs no
    // heap traffic per parameter. False as translate().
    bool to_registers(const toolkit::CElement& el, const CModbusParamDynamicConfig& cfg,
                      mbreg_t* out) const;
    // The value of the reg_count() wire registers at regs (left untouched) into out.
    // Allocates only for a text value, or to undo the swaps of a value longer than one
    // request can carry. float_leaf: the store keeps the parameter as a floating-point
    // number. False as translate().
    bool from_registers(const mbreg_t* regs, const CModbusParamDynamicConfig& cfg,
                        toolkit::CElement& out, bool float_leaf = false) const;

    uint16_t size() const { return _size; }
    uint8_t offset() const { return _offset; }
    bool swap_bytes() const { return _swap_bytes; }
    bool swap_words() const { return _swap_words; }

protected:
    uint16_t _size = 0;
    uint8_t _offset = 0;
    bool _swap_bytes = false;
    bool _swap_words = false;
};
