#pragma once
// Leaf paths resolved to small numbers once, when a configuration is built, so that the
// reads of a running server index arrays instead of building and hashing path strings.
#include "toolkit/element.h"
#include "toolkit/kvr.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace toolkit {

typedef uint32_t leaf_id_t;

// Each distinct path, in the store's normal form (CCdsStore::normal_path), gets the next id:
// 0, 1, 2, ... Ids never change while the table lives; it only grows.
//
// A device maps thousands of leaves, and the table lives as long as the server: the paths
// are kept end to end in one string, found again through an open-addressed index of ids,
// rather than as a string and a hash node each (a third of the memory).
class CLeafTable {
public:
    // The path's id, a new one when the path is not known yet.
    leaf_id_t add(const tk_string& path);
    // The normal form of the path with that id, valid until the next add(); the id must come
    // from add().
    std::string_view path(leaf_id_t id) const;
    size_t size() const { return _starts.size() - 1; }
    // The id of a path (any form), if it has one.
    bool find(const tk_string& path, leaf_id_t& id) const;

private:
    static uint32_t hash(std::string_view path);
    // The index slot that holds the path's id, or the empty one where it would go.
    size_t slot_of(std::string_view path, uint32_t hash) const;
    void grow_index();

    std::string _text;
    // Where each path starts in _text, and one past the last.
    std::vector<uint32_t> _starts{0};
    // Each path's hash: most probes end on it, without comparing paths that share a length
    // and a long prefix.
    std::vector<uint32_t> _hashes;
    // id + 1 per used slot, 0 for a free one; a power of two, at most half full.
    std::vector<leaf_id_t> _index;
};

// One leaf as the store last read it.
struct CLeafValue {
    api_status_t status = API_STATUS_NONE;
    CElement value;
    element_property_t source = 0;
};

} // namespace toolkit
