#pragma once
// One node of an EDS mapping file: key text to value text, plus where it came from, so that
// whoever rejects a value can name the file, the line, the section and the key.
//
// It is the key/value multimap itself, so nodes written in code (tests, benchmarks) are
// built as before; those have no file, an empty label and line 0.
#include "toolkit/tk_string.h"

#include <unordered_map>

namespace toolkit {

class CEdsNode : public std::unordered_multimap<tk_string, tk_string> {
public:
    using std::unordered_multimap<tk_string, tk_string>::unordered_multimap;

    // The file the node was read from; empty for a node made in code.
    const tk_string& path() const { return _path; }
    // The text between the brackets of its "[label]" line.
    const tk_string& label() const { return _label; }
    // The line of its "[label]".
    unsigned line() const { return _line; }
    // The line of key's first occurrence; the node's line when the key was not read.
    unsigned line_of(const tk_string& key) const {
        const auto it = _key_lines.find(key);
        return it == _key_lines.end() ? _line : it->second;
    }

    void set_origin(const tk_string& path, const tk_string& label, unsigned line) {
        _path = path;
        _label = label;
        _line = line;
    }
    // Records the line of key, keeping the first when a key is repeated (as its value is).
    void set_line_of(const tk_string& key, unsigned line) { _key_lines.emplace(key, line); }

private:
    tk_string _path;
    tk_string _label;
    unsigned _line = 0;
    std::unordered_map<tk_string, unsigned> _key_lines;
};

} // namespace toolkit
