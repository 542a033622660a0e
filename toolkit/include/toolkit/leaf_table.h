#pragma once
// Leaf paths resolved to small numbers once, when a configuration is built, so that the
// reads of a running server index arrays instead of building and hashing path strings.
#include "toolkit/element.h"
#include "toolkit/kvr.h"

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

namespace toolkit {

typedef uint32_t leaf_id_t;

// Each distinct path, in the store's normal form (CCdsStore::normal_path), gets the next id:
// 0, 1, 2, ... Ids never change while the table lives; it only grows.
class CLeafTable {
public:
    // The path's id, a new one when the path is not known yet.
    leaf_id_t add(const tk_string& path);
    // The normal form of the path with that id; the id must come from add().
    const tk_string& path(leaf_id_t id) const;
    size_t size() const { return _paths.size(); }
    // The id of a path (any form), if it has one.
    bool find(const tk_string& path, leaf_id_t& id) const;

private:
    std::vector<tk_string> _paths;
    std::unordered_map<tk_string, leaf_id_t> _ids;
};

// One leaf as the store last read it.
struct CLeafValue {
    api_status_t status = API_STATUS_NONE;
    CElement value;
    element_property_t source = 0;
};

} // namespace toolkit
