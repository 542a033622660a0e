#include "modbus/map/float_mapping.h"
#include "modbus/map/map_util.h"
#include "util/log.h"

#include <algorithm>
#include <cassert>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Out-of-range doubles become infinities rather than an undefined conversion.
float narrow(double d) {
    if (std::isfinite(d) && std::fabs(d) > FLT_MAX)
        return d > 0 ? HUGE_VALF : -HUGE_VALF;
    return static_cast<float>(d);
}

uint32_t float_bits(float f) {
    uint32_t b;
    std::memcpy(&b, &f, sizeof b);
    return b;
}

float bits_float(uint32_t b) {
    float f;
    std::memcpy(&f, &b, sizeof f);
    return f;
}

// The shortest %G text that reads back as the same float.
tk_string format_value(float v) {
    if (std::isnan(v))
        return "NaN";
    char buf[32];
    // At least the integer digits, so that 50 prints as 50 and not as 5E+01.
    const float magnitude = std::fabs(v);
    const int digits = std::isfinite(magnitude) && magnitude >= 1.0f
                           ? std::min(9, static_cast<int>(std::floor(std::log10(magnitude))) + 1)
                           : 1;
    for (int precision = digits; precision < 9; ++precision) {
        std::snprintf(buf, sizeof buf, "%.*G", precision, v);
        if (std::strtof(buf, nullptr) == v)
            return buf;
    }
    std::snprintf(buf, sizeof buf, "%.*G", 9, v);
    return buf;
}

tk_string format_scale(float v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.1f", v);
    return buf;
}

} // namespace

CFloatMapping::CFloatMapping(const toolkit::node_map_t& node) : CRegisterMapping(node) {
    LOG_STACK();
    if (_size != 4)
        CMapUtil::fail(node, _size == 0 ? nullptr : "Size", "a DATATYPE_FLOAT has Size = 4");
    if (_offset % 8 != 0)
        CMapUtil::fail(node, "BitOffset", "a DATATYPE_FLOAT starts at bit offset 0 or 8");
    _multiplier = static_cast<float>(CMapUtil::scale(node, "Multiplier"));
    _divider = static_cast<float>(CMapUtil::scale(node, "Divider"));
    _units = CMapUtil::units(node, _units_text);
}

float CFloatMapping::scaled(const toolkit::CElement& el, double factor) const {
    float v = narrow(el.to_float());
    LOG_DEBUG(SS_MAPPING, 5, "value [%f]", v);
    if (factor != 0.0)
        v = narrow(v * factor);
    if (_multiplier != 0.0f)
        v *= _multiplier;
    if (_divider != 0.0f)
        v /= _divider;
    return v;
}

bool CFloatMapping::translate(const toolkit::CElement& el, const CModbusParamDynamicConfig& cfg,
                              mbreg_t* out) const {
    LOG_STACK();
    assert(_size == 4);
    const uint32_t b = float_bits(scaled(el, CMapUtil::units_factor(cfg.units(), _units)));
    std::fill(out, out + reg_count(), mbreg_t(0));
    const size_t start = _offset / 8;
    for (size_t k = 0; k < 4; ++k)
        CMapUtil::put_byte(out, start + k, static_cast<uint8_t>(b >> (24 - 8 * k)));
    return true;
}

bool CFloatMapping::translate(const mbreg_t* regs, const CModbusParamDynamicConfig& cfg,
                              toolkit::CElement& out) const {
    LOG_STACK();
    assert(_size == 4);
    assert(regs != nullptr);
    uint32_t b = 0;
    const size_t start = _offset / 8;
    for (size_t k = 0; k < 4; ++k)
        b |= static_cast<uint32_t>(CMapUtil::get_byte(regs, start + k)) << (24 - 8 * k);
    float v = bits_float(b);
    if (_divider != 0.0f)
        v *= _divider;
    if (_multiplier != 0.0f)
        v /= _multiplier;
    const double factor = CMapUtil::units_factor(_units, cfg.units());
    if (factor != 0.0)
        v = narrow(v * factor);
    out = toolkit::CElement::from_float(v, toolkit::CElement::_invalid_time);
    return true;
}

CProfileMapping CFloatMapping::reverse_map(const toolkit::CElement& el, const tk_string& units,
                                           const CModbusParamDynamicConfig& cfg) const {
    LOG_STACK();
    CProfileMapping row;
    row[CProfileMapping::TYPE] = "FLOAT";
    if (_multiplier != 0.0f)
        row[CProfileMapping::MULTIPLIER] = format_scale(_multiplier);
    if (_divider != 0.0f)
        row[CProfileMapping::DIVIDER] = format_scale(_divider);
    const double factor = CMapUtil::units_factor(cfg.units(), _units);
    row[CProfileMapping::UNITS] = factor != 0.0 || units.empty() ? _units_text : units;
    if (el.has_value())
        row[CProfileMapping::MODBUS_VALUE] = format_value(scaled(el, factor));
    return row;
}
