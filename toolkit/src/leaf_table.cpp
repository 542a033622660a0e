#include "toolkit/leaf_table.h"

#include "store_connection.h"

#include <cassert>
#include <limits>
#include <stdexcept>

namespace toolkit {

leaf_id_t CLeafTable::add(const tk_string& path) {
    tk_string scratch;
    const tk_string& normal = CStoreConnection::normal_path(path, scratch);
    const auto it = _ids.find(normal);
    if (it != _ids.end())
        return it->second;
    if (_paths.size() >= std::numeric_limits<leaf_id_t>::max())
        throw std::length_error("CLeafTable::add: no leaf id left for '" + normal + "'");
    const leaf_id_t id = static_cast<leaf_id_t>(_paths.size());
    _paths.push_back(normal);
    _ids.emplace(normal, id);
    return id;
}

const tk_string& CLeafTable::path(leaf_id_t id) const {
    assert(id < _paths.size());
    return _paths[id];
}

bool CLeafTable::find(const tk_string& path, leaf_id_t& id) const {
    tk_string scratch;
    const auto it = _ids.find(CStoreConnection::normal_path(path, scratch));
    if (it == _ids.end())
        return false;
    id = it->second;
    return true;
}

} // namespace toolkit
