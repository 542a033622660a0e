#include "modbus/map/bool_mapping.h"
#include "modbus/map/map_util.h"
#include "util/log.h"

#include <cassert>

CBoolMapping::CBoolMapping(const toolkit::node_map_t& node) : CRegisterMapping(node) {
    LOG_STACK();
    // The bit is the top bit of the register's high byte (0) or of its low byte (8).
    if (_offset != 0 && _offset != 8)
        CMapUtil::fail(node, "BitOffset", "a DATATYPE_BOOL bit offset must be 0 or 8");
    if (_size == 0)
        _size = 1;
    // The bit lives in one register; a wider field would not match what is translated.
    if (reg_count() != 1)
        CMapUtil::fail(node, "Size", "a DATATYPE_BOOL value fits one register");
}

mbreg_t CBoolMapping::mask() const {
    assert(_offset < 16);
    return static_cast<mbreg_t>(0x8000u >> _offset);
}

bool CBoolMapping::translate(const toolkit::CElement& el, const CModbusParamDynamicConfig&,
                             mbreg_t* out) const {
    LOG_STACK();
    out[0] = el.to_bool() ? mask() : 0;
    return true;
}

bool CBoolMapping::translate(const mbreg_t* regs, const CModbusParamDynamicConfig&,
                             toolkit::CElement& out) const {
    LOG_STACK();
    assert(regs != nullptr);
    out = toolkit::CElement::from_bool((regs[0] & mask()) != 0, toolkit::CElement::_invalid_time);
    return true;
}

CProfileMapping CBoolMapping::reverse_map(const toolkit::CElement& el, const tk_string&,
                                          const CModbusParamDynamicConfig&) const {
    LOG_STACK();
    CProfileMapping row;
    row[CProfileMapping::TYPE] = "BOOLEAN";
    if (el.has_value())
        row[CProfileMapping::MODBUS_VALUE] = el.to_bool() ? "1" : "0";
    return row;
}
