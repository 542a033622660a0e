#pragma once
// One data-store leaf in transit: a path with its value, the status of the last get or set
// and the value's source word. Batches travel as std::unordered_set<CCdsLeaf>.
//
// Identity is the path alone (hash and equality), so a set holds one leaf per path and a
// result can be found with a probe leaf that carries only the path. The other members are
// mutable: a batch call fills them in while the leaves sit in a set.
#include "toolkit/element.h"
#include "toolkit/kvr.h"

#include <cstddef>
#include <functional>
#include <unordered_set>

class CCdsLeaf {
public:
    // The element is moved in and stamped with CElement::_invalid_time.
    CCdsLeaf(tk_string&& path, toolkit::CElement&& element = toolkit::CElement())
        : _path(std::move(path)), _element(std::move(element), toolkit::CElement::_invalid_time) {}
    CCdsLeaf(const tk_string& path, toolkit::CElement&& element = toolkit::CElement())
        : _path(path), _element(std::move(element), toolkit::CElement::_invalid_time) {}

    size_t hash() const { return std::hash<tk_string>()(_path); }
    bool operator==(const CCdsLeaf& other) const {
        return _path.size() == other._path.size() && _path.compare(other._path) == 0;
    }
    bool operator!=(const CCdsLeaf& other) const { return !(*this == other); }

    // Relative to the prefix given with the batch.
    tk_string _path;
    // The value read, or the value to write.
    mutable toolkit::CElement _element;
    // Of the last get or set; 0 after construction, API_STATUS_OK (1) on success.
    mutable api_status_t _status = 0;
    // As the store returned it with a value; 0 after construction and after a set.
    mutable element_property_t _source = 0;
};

namespace std {
template <> struct hash<CCdsLeaf> {
    size_t operator()(const CCdsLeaf& leaf) const { return leaf.hash(); }
};
} // namespace std

using cds_leaf_set_t = std::unordered_set<CCdsLeaf>;
