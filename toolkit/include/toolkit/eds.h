#pragma once
// Reader of EDS mapping files: INI style, "[label]" starts a node, "key = value" fills it.
#include "toolkit/tk_string.h"

#include <fstream>
#include <unordered_map>

namespace toolkit {

// One node: key text to value text. A key repeated inside a node keeps its first value.
typedef std::unordered_multimap<tk_string, tk_string> node_map_t;

class CEds {
public:
    // 0 on success; otherwise error() says why.
    int open(const tk_string& path);
    // 0: node holds the next node; greater than 0: end of file; less than 0: a malformed
    // line, and error() names the file and the line number.
    int next_node(node_map_t& node);
    const tk_string& error() const { return _error; }

private:
    tk_string _path;
    std::ifstream _in;
    unsigned _line = 0;
    tk_string _pending_label;
    bool _have_pending = false;
    tk_string _error;
};

} // namespace toolkit
