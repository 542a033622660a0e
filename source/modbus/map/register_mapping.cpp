#include "modbus/map/register_mapping.h"
#include "modbus/map/bool_mapping.h"
#include "modbus/map/float_mapping.h"
#include "modbus/map/int_mapping.h"
#include "modbus/map/map_util.h"
#include "modbus/map/string_mapping.h"
#include "modbus/map/time_mapping.h"
#include "util/log.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <vector>

namespace {

// The most registers one request carries (a read of holding registers).
const size_t max_request_regs = 125;

} // namespace

std::unique_ptr<CRegisterMapping> CRegisterMapping::create(const toolkit::node_map_t& node) {
    LOG_STACK();
    const auto it = node.find("ExternalValueType");
    if (it == node.end())
        CMapUtil::fail(node, nullptr, "no ExternalValueType");
    const tk_string& type = it->second;
    if (type == "DATATYPE_STRING")
        return std::make_unique<CStringMapping>(node);
    if (type == "DATATYPE_UINT" || type == "DATATYPE_INT")
        return std::make_unique<CIntMapping>(node);
    if (type == "DATATYPE_FLOAT")
        return std::make_unique<CFloatMapping>(node);
    if (type == "DATATYPE_BOOL")
        return std::make_unique<CBoolMapping>(node);
    if (type == "DATATYPE_TIME")
        return std::make_unique<CTimeMapping>(node);
    CMapUtil::fail(node, "ExternalValueType",
                   "unknown type (DATATYPE_STRING, DATATYPE_UINT, DATATYPE_INT, DATATYPE_FLOAT, "
                   "DATATYPE_BOOL or DATATYPE_TIME)");
}

CRegisterMapping::CRegisterMapping(const toolkit::node_map_t& node) {
    LOG_STACK();
    if (node.count("Size"))
        _size = static_cast<uint16_t>(CMapUtil::num(node, "Size", 1, 65535));
    if (node.count("BitOffset"))
        _offset = static_cast<uint8_t>(CMapUtil::num(node, "BitOffset", 0, 15));
    _swap_bytes = CMapUtil::flag(node, "Endianness");
    _swap_words = CMapUtil::flag(node, "WordOrder");
}

size_t CRegisterMapping::reg_count() const {
    assert((_offset == 0) || (_offset == 8));
    return _offset == 0 ? (_size + 1u) / 2 : (_size + 2u) / 2;
}

bool CRegisterMapping::to_registers(const toolkit::CElement& el,
                                    const CModbusParamDynamicConfig& cfg, mbreg_t* out) const {
    LOG_STACK();
    if (!translate(el, cfg, out))
        return false;
    if (_swap_bytes)
        CMapUtil::swap_endianness(out, reg_count());
    if (_swap_words)
        CMapUtil::swap_word_order(out, reg_count());
    return true;
}

bool CRegisterMapping::from_registers(const mbreg_t* regs, const CModbusParamDynamicConfig& cfg,
                                      toolkit::CElement& out, bool float_leaf) const {
    LOG_STACK();
    if (!_swap_bytes && !_swap_words)
        return float_leaf ? translate_float(regs, cfg, out) : translate(regs, cfg, out);
    // Undoing the swaps needs a copy: on the stack for anything one request can write.
    const size_t n = reg_count();
    std::array<mbreg_t, max_request_regs> local;
    std::vector<mbreg_t> large;
    mbreg_t* natural = local.data();
    if (n > local.size()) {
        large.resize(n);
        natural = large.data();
    }
    std::copy(regs, regs + n, natural);
    if (_swap_words)
        CMapUtil::swap_word_order(natural, n);
    if (_swap_bytes)
        CMapUtil::swap_endianness(natural, n);
    return float_leaf ? translate_float(natural, cfg, out) : translate(natural, cfg, out);
}
