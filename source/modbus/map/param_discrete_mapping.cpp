#include "modbus/map/param_discrete_mapping.h"
#include "modbus/map/map_util.h"
#include "util/log.h"

CParamDiscreteMapping::CParamDiscreteMapping(const toolkit::node_map_t& node, size_t id)
    : CParamMapping(node, id) {
    LOG_STACK();
    _negate = CMapUtil::boolean(node, "NegateValue");
    LOG_DEBUG(SS_MAPPING, 9, "Creating discrete mapping for '%s'", path().c_str());
}

toolkit::CElement CParamDiscreteMapping::translate(bool value) const {
    LOG_STACK();
    return toolkit::CElement::from_bool(value != _negate, toolkit::CElement::_invalid_time);
}
