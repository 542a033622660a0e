#include "modbus/map/string_mapping.h"
#include "modbus/map/map_util.h"
#include "util/log.h"

#include <algorithm>
#include <cassert>

CStringMapping::CStringMapping(const toolkit::node_map_t& node) : CRegisterMapping(node) {
    LOG_STACK();
    if (_size == 0)
        CMapUtil::fail(node, nullptr, "no Size (a DATATYPE_STRING has 1 to 65535 bytes)");
    if (_offset % 8 != 0)
        CMapUtil::fail(node, "BitOffset", "a DATATYPE_STRING starts at bit offset 0 or 8");
}

regvec_t CStringMapping::translate(const toolkit::CElement& el,
                                   const CModbusParamDynamicConfig&) const {
    LOG_STACK();
    const tk_string text = el.str();
    regvec_t regs(reg_count(), 0);
    const size_t start = _offset / 8;
    const size_t n = std::min(text.size(), 2 * regs.size() - start);
    for (size_t k = 0; k < n; ++k)
        CMapUtil::put_byte(regs, start + k, static_cast<uint8_t>(text[k]));
    return regs;
}

toolkit::CElement CStringMapping::translate(const regvec_t& regs,
                                            const CModbusParamDynamicConfig&) const {
    LOG_STACK();
    assert(!regs.empty());
    assert(regs.size() == reg_count());
    const size_t start = _offset / 8;
    tk_string text;
    for (size_t pos = 0; pos < _size; ++pos) {
        const char c = static_cast<char>(CMapUtil::get_byte(regs, start + pos));
        if (c == '\0')
            break;
        text += c;
    }
    return toolkit::CElement::from_string(text, toolkit::CElement::_invalid_time);
}

CProfileMapping CStringMapping::reverse_map(const toolkit::CElement& el, const tk_string&,
                                            const CModbusParamDynamicConfig&) const {
    LOG_STACK();
    CProfileMapping row;
    row[CProfileMapping::TYPE] = "STRING";
    if (el.has_value())
        row[CProfileMapping::MODBUS_VALUE] = el.str().substr(0, _size);
    return row;
}
