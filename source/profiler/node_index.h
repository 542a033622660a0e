#pragma once
// Which parameters the store holds below a device node. Parameter paths may be nested, so
// "the store holds the parameter" means every level of its path is a child of the level
// above: one missing level anywhere and the parameter gets no row, whatever leaves a deeper
// path would name.
//
// Each node's children are listed once and kept, so a unit of many parameters under few
// nodes costs few store calls; the index does not see nodes added after their listing.
#include "cds/cds_handle.h"

#include <map>
#include <unordered_set>

class CNodeIndex {
public:
    // root is the device's store path; cds must outlive the index.
    CNodeIndex(CCdsHandle& cds, const tk_string& root);

    // rel is a parameter path relative to root ("/Battery/Low"); empty levels (doubled or
    // trailing slashes) are skipped. A path with no level at all is not held. Throws
    // CError only when the store itself fails.
    bool holds(const tk_string& rel);

private:
    const std::unordered_set<tk_string>& children(const tk_string& node);

    CCdsHandle& _cds;
    tk_string _root;
    std::map<tk_string, std::unordered_set<tk_string>> _children;
};
