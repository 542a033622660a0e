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

bool CStringMapping::translate(const toolkit::CElement& el, const CModbusParamDynamicConfig&,
                               mbreg_t* out) const {
    LOG_STACK();
    // A text is laid out from its own storage; any other kind is converted first, which is
    // the one case here that may allocate.
    tk_string converted;
    if (!el.is_string())
        el.to_string(converted);
    const tk_string& text = el.is_string() ? el.text() : converted;
    const size_t nregs = reg_count();
    std::fill(out, out + nregs, mbreg_t(0));
    const size_t start = _offset / 8;
    const size_t n = std::min(text.size(), 2 * nregs - start);
    for (size_t k = 0; k < n; ++k)
        CMapUtil::put_byte(out, start + k, static_cast<uint8_t>(text[k]));
    return true;
}

bool CStringMapping::translate(const mbreg_t* regs, const CModbusParamDynamicConfig&,
                               toolkit::CElement& out) const {
    LOG_STACK();
    assert(regs != nullptr);
    const size_t start = _offset / 8;
    size_t len = 0;
    while (len < _size && CMapUtil::get_byte(regs, start + len) != 0)
        ++len;
    tk_string text(len, '\0');
    for (size_t pos = 0; pos < len; ++pos)
        text[pos] = static_cast<char>(CMapUtil::get_byte(regs, start + pos));
    out = toolkit::CElement::from_string(text, toolkit::CElement::_invalid_time);
    return true;
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
