#include "modbus/map/param_mapping.h"
#include "util/generic_err.h"
#include "util/log.h"

#include <cassert>

CParamMapping::CParamMapping(const toolkit::node_map_t& node, size_t id) : _id(id) {
    LOG_STACK();
    const auto it = node.find("Name");
    if (it == node.end())
        throw generic_err();
    _path = it->second;
    const size_t pos = _path.rfind('/');
    if (pos == tk_string::npos || pos == 0)
        throw generic_err();
}

tk_string CParamMapping::param_path() const {
    const size_t pos = _path.rfind('/');
    assert(pos != 0);
    assert(pos != _path.npos);
    return _path.substr(0, pos);
}
