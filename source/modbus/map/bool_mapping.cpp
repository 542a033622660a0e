#include "modbus/map/bool_mapping.h"
#include "util/generic_err.h"
#include "util/log.h"

#include <cassert>

CBoolMapping::CBoolMapping(const toolkit::node_map_t& node) : CRegisterMapping(node) {
    LOG_STACK();
    if (_size == 0)
        _size = 1;
    // The bit lives in one register; a wider field would not match what is translated.
    if ((_offset == 0 || _offset == 8) && reg_count() != 1)
        throw generic_err();
}

mbreg_t CBoolMapping::mask() const {
    assert(_offset < 16);
    return static_cast<mbreg_t>(0x8000u >> _offset);
}

regvec_t CBoolMapping::translate(const toolkit::CElement& el,
                                 const CModbusParamDynamicConfig&) const {
    LOG_STACK();
    return regvec_t(1, el.to_bool() ? mask() : 0);
}

toolkit::CElement CBoolMapping::translate(const regvec_t& regs,
                                          const CModbusParamDynamicConfig&) const {
    LOG_STACK();
    assert(regs.size() == 1);
    return toolkit::CElement::from_bool((regs[0] & mask()) != 0, toolkit::CElement::_invalid_time);
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
