#include "modbus/map/int_mapping.h"
#include "modbus/map/map_util.h"
#include "util/log.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>

namespace {

// Double to integer, truncating toward zero and saturating (NaN gives 0).
int32_t to_i32(double d) {
    if (std::isnan(d))
        return 0;
    d = std::trunc(d);
    if (d <= std::numeric_limits<int32_t>::min())
        return std::numeric_limits<int32_t>::min();
    if (d >= std::numeric_limits<int32_t>::max())
        return std::numeric_limits<int32_t>::max();
    return static_cast<int32_t>(d);
}

// Negative values give their magnitude: a negative reading of an unsigned register.
uint32_t to_u32(double d) {
    if (std::isnan(d))
        return 0;
    d = std::fabs(std::trunc(d));
    if (d >= std::numeric_limits<uint32_t>::max())
        return std::numeric_limits<uint32_t>::max();
    return static_cast<uint32_t>(d);
}

// 32-bit signed arithmetic that wraps instead of overflowing.
int32_t mul_i32(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}
int32_t div_i32(int32_t a, int32_t b) {
    return b == -1 ? static_cast<int32_t>(0u - static_cast<uint32_t>(a)) : a / b;
}

} // namespace

CIntMapping::CIntMapping(const toolkit::node_map_t& node) : CRegisterMapping(node) {
    LOG_STACK();
    if (_offset % 8 != 0)
        CMapUtil::fail(node, "BitOffset", "an integer starts at bit offset 0 or 8");
    // Without a size the mapping would occupy no register at all; beyond 4 bytes the value
    // would be cut to its low 32 bits without a word.
    if (_size == 0)
        CMapUtil::fail(node, nullptr, "no Size (an integer has 1 to 4 bytes)");
    if (_size > 4)
        CMapUtil::fail(node, "Size", "an integer has 1 to 4 bytes");
    // The two layouts the translation cannot place; refused here rather than on first use.
    if (_offset == 0 && _size == 1)
        CMapUtil::fail(node, "Size", "a 1-byte integer needs BitOffset = 8");
    if (_offset == 8 && _size == 2)
        CMapUtil::fail(node, "Size", "a 2-byte integer cannot start at BitOffset = 8");
    const auto icfg = node.find("ExternalValueType");
    assert(icfg != node.end());
    _signed = icfg->second == "DATATYPE_INT";
    _multiplier = CMapUtil::scale(node, "Multiplier");
    _divider = CMapUtil::scale(node, "Divider");
    _units = CMapUtil::units(node, _units_text);
}

uint32_t CIntMapping::scaled(const toolkit::CElement& el, double factor) const {
    if (el.is_float()) {
        double d = el.to_float();
        if (factor != 0.0)
            d *= factor;
        if (_multiplier != 0)
            d *= _multiplier;
        if (_divider != 0)
            d /= _divider;
        return _signed ? static_cast<uint32_t>(to_i32(d)) : to_u32(d);
    }
    if (_signed) {
        int32_t v = static_cast<int32_t>(el.to_int());
        if (factor == 0.0) {
            if (_multiplier != 0)
                v = mul_i32(v, _multiplier);
            if (_divider != 0)
                v = div_i32(v, _divider);
            return static_cast<uint32_t>(v);
        }
        double d = v * factor;
        if (_multiplier != 0)
            d *= _multiplier;
        if (_divider != 0)
            d /= _divider;
        return static_cast<uint32_t>(to_i32(d));
    }
    uint32_t v = static_cast<uint32_t>(el.to_uint());
    if (factor != 0.0)
        return to_u32(v * factor);
    if (_multiplier != 0)
        v *= static_cast<uint32_t>(_multiplier);
    if (_divider != 0)
        v /= static_cast<uint32_t>(_divider);
    return v;
}

uint32_t CIntMapping::field(uint32_t raw) const {
    if (_size >= 4)
        return raw;
    const unsigned bits = 8u * _size;
    raw &= (1u << bits) - 1;
    if (_signed && (raw >> (bits - 1)) != 0)
        raw |= ~0u << bits;
    return raw;
}

void CIntMapping::check_layout() const {
    assert((_offset == 0) || (_offset == 8));
    assert(!(_offset == 0 && _size == 1));
    assert(!(_offset == 8 && _size == 2));
}

bool CIntMapping::translate(const toolkit::CElement& el, const CModbusParamDynamicConfig& cfg,
                            mbreg_t* out) const {
    LOG_STACK();
    check_layout();
    const uint32_t v = scaled(el, CMapUtil::units_factor(cfg.units(), _units));
    // Bytes beyond the 32-bit value extend its sign.
    const uint8_t fill = _signed && (v >> 31) != 0 ? 0xff : 0x00;
    std::fill(out, out + reg_count(), mbreg_t(0));
    const size_t start = _offset / 8;
    for (size_t k = 0; k < _size; ++k) {
        const size_t shift = _size - 1 - k; // bytes below this one
        const uint8_t b = shift < 4 ? static_cast<uint8_t>(v >> (8 * shift)) : fill;
        CMapUtil::put_byte(out, start + k, b);
    }
    return true;
}

bool CIntMapping::translate(const mbreg_t* regs, const CModbusParamDynamicConfig& cfg,
                            toolkit::CElement& out) const {
    LOG_STACK();
    const uint32_t raw = read_field(regs);
    const double factor = CMapUtil::units_factor(cfg.units(), _units);
    if (_signed) {
        int32_t v = static_cast<int32_t>(raw);
        if (_divider != 0)
            v = mul_i32(v, _divider);
        if (_multiplier != 0)
            v = div_i32(v, _multiplier);
        if (factor != 0.0)
            v = to_i32(v * factor);
        out = toolkit::CElement::from_int(v, toolkit::CElement::_invalid_time);
        return true;
    }
    uint32_t v = raw;
    if (_divider != 0)
        v *= static_cast<uint32_t>(_divider);
    if (_multiplier != 0)
        v /= static_cast<uint32_t>(_multiplier);
    if (factor != 0.0)
        v = to_u32(v * factor);
    out = toolkit::CElement::from_uint(v, toolkit::CElement::_invalid_time);
    return true;
}

uint32_t CIntMapping::read_field(const mbreg_t* regs) const {
    assert(regs != nullptr);
    check_layout();
    uint32_t raw = 0;
    const size_t start = _offset / 8;
    for (size_t k = 0; k < _size; ++k) {
        const size_t shift = _size - 1 - k;
        if (shift < 4)
            raw |= static_cast<uint32_t>(CMapUtil::get_byte(regs, start + k)) << (8 * shift);
    }
    return field(raw);
}

bool CIntMapping::translate_float(const mbreg_t* regs, const CModbusParamDynamicConfig& cfg,
                                  toolkit::CElement& out) const {
    LOG_STACK();
    const uint32_t raw = read_field(regs);
    double d = _signed ? static_cast<double>(static_cast<int32_t>(raw)) : static_cast<double>(raw);
    if (_divider != 0)
        d *= _divider;
    if (_multiplier != 0)
        d /= _multiplier;
    const double factor = CMapUtil::units_factor(cfg.units(), _units);
    if (factor != 0.0)
        d *= factor;
    out = toolkit::CElement::from_float(d, toolkit::CElement::_invalid_time);
    return true;
}

CProfileMapping CIntMapping::reverse_map(const toolkit::CElement& el, const tk_string& units,
                                         const CModbusParamDynamicConfig& cfg) const {
    LOG_STACK();
    CProfileMapping row;
    row[CProfileMapping::TYPE] = _signed ? "INT" : "UINT";
    if (_multiplier != 0)
        row[CProfileMapping::MULTIPLIER] = std::to_string(_multiplier);
    if (_divider != 0)
        row[CProfileMapping::DIVIDER] = std::to_string(_divider);
    const double factor = CMapUtil::units_factor(cfg.units(), _units);
    row[CProfileMapping::UNITS] = factor != 0.0 || units.empty() ? _units_text : units;
    if (el.has_value()) {
        const uint32_t v = field(scaled(el, factor));
        row[CProfileMapping::MODBUS_VALUE] =
            _signed ? std::to_string(static_cast<int32_t>(v)) : std::to_string(v);
    }
    return row;
}
