#include "profiler/node_index.h"

CNodeIndex::CNodeIndex(CCdsHandle& cds, const tk_string& root) : _cds(cds), _root(root) {}

bool CNodeIndex::holds(const tk_string& rel) {
    tk_string node = _root;
    size_t pos = 0;
    while (pos < rel.size()) {
        size_t end = rel.find('/', pos);
        if (end == tk_string::npos)
            end = rel.size();
        if (end > pos) {
            const tk_string name = rel.substr(pos, end - pos);
            if (!children(node).count(name))
                return false;
            node += "/" + name;
        }
        pos = end + 1;
    }
    return node != _root;
}

const std::unordered_set<tk_string>& CNodeIndex::children(const tk_string& node) {
    auto it = _children.find(node);
    if (it == _children.end())
        it = _children.emplace(node, _cds.list_nodes(node)).first;
    return it->second;
}
