#include "modbus/map/param_mapping.h"
#include "modbus/map/map_util.h"
#include "util/log.h"

#include <cassert>

CParamMapping::CParamMapping(const toolkit::node_map_t& node, size_t id) : _id(id) {
    LOG_STACK();
    const auto it = node.find("Name");
    if (it == node.end())
        CMapUtil::fail(node, nullptr, "no Name");
    _path = it->second;
    const size_t pos = _path.rfind('/');
    if (pos == tk_string::npos || pos == 0)
        CMapUtil::fail(node, "Name", "not a value path like /Parameter/Value");
}

tk_string CParamMapping::param_path() const {
    const size_t pos = _path.rfind('/');
    assert(pos != 0);
    assert(pos != _path.npos);
    return _path.substr(0, pos);
}
