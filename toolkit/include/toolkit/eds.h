#pragma once
// Reader of EDS mapping files: INI style, "[label]" starts a node, "key = value" fills it.
//
// Blanks around keys and values are trimmed; lines starting with "#" or ";" are comments;
// empty lines are ignored. Values are taken verbatim otherwise (";" or "#" inside a value
// is text, not a comment). Each node carries its file, label and the lines of its keys.
//
// A small reader of its own rather than inih: Debian's inih is built to treat indented lines
// as continuations, to accept "key: value", to cut values at " ;" and to split lines longer
// than 200 bytes, all of which would silently change what a mapping file says.
#include "toolkit/eds_node.h"
#include "toolkit/tk_string.h"

#include <cstdio>
#include <memory>

namespace toolkit {

// One node: key text to value text. A key repeated inside a node keeps its first value.
typedef CEdsNode node_map_t;

class CEds {
public:
    // 0 on success; otherwise error() says why, naming the file.
    int open(const tk_string& path);
    // 0: node holds the next node; greater than 0: end of file; less than 0: a malformed
    // line, and error() names the file, the line number and the section it is in.
    int next_node(node_map_t& node);
    const tk_string& error() const { return _error; }

private:
    int fail(const tk_string& why);
    // The next line without its newline; false at the end of the file or on a read error.
    bool read_line(tk_string& line);

    struct CClose {
        void operator()(std::FILE* f) const { std::fclose(f); }
    };
    tk_string _path;
    // stdio rather than a stream: iostreams would pull locales and streams into a static
    // build for the device, most of a megabyte.
    std::unique_ptr<std::FILE, CClose> _in;
    unsigned _line = 0;
    bool _in_node = false; // a "[label]" line has been read and its keys are next
    tk_string _label;      // of the node being read
    unsigned _label_line = 0;
    bool _failed = false;
    tk_string _error;
};

} // namespace toolkit
