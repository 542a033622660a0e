#include "toolkit/eds.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace toolkit {

namespace {

const char* const k_blanks = " \t\r\v\f";

tk_string trim(const tk_string& text, size_t begin, size_t end) {
    begin = text.find_first_not_of(k_blanks, begin);
    if (begin == tk_string::npos || begin >= end)
        return tk_string();
    const size_t last = text.find_last_not_of(k_blanks, end - 1);
    return text.substr(begin, last - begin + 1);
}

} // namespace

int CEds::fail(const tk_string& why) {
    _error =
        _path + ":" + std::to_string(_line) + ": " + (_in_node ? "[" + _label + "] " : "") + why;
    _failed = true;
    return -1;
}

int CEds::open(const tk_string& path) {
    _path = path;
    _line = 0;
    _in_node = false;
    _label.clear();
    _label_line = 0;
    _failed = false;
    _error.clear();
    _in.reset();
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        _error = path + ": cannot open: " + std::strerror(errno);
        return -1;
    }
    if (!S_ISREG(st.st_mode)) {
        _error = path + ": cannot open: not a regular file";
        return -1;
    }
    _in.reset(std::fopen(path.c_str(), "rb"));
    if (!_in) {
        _error = path + ": cannot open: " + std::strerror(errno);
        return -1;
    }
    return 0;
}

bool CEds::read_line(tk_string& line) {
    line.clear();
    // Byte by byte through stdio's buffer (the file is this reader's alone, so unlocked): a
    // line may hold any byte, NUL included.
    int c;
    while ((c = ::getc_unlocked(_in.get())) != EOF) {
        if (c == '\n')
            return true;
        line.push_back(static_cast<char>(c));
    }
    // The last line may lack its newline.
    return !line.empty() && !std::ferror(_in.get());
}

int CEds::next_node(node_map_t& node) {
    node = node_map_t();
    if (_failed)
        return -1;
    if (!_in) {
        _error = "no EDS file is open";
        return -1;
    }
    tk_string line;
    while (read_line(line)) {
        ++_line;
        if (_line == 1 && line.compare(0, 3, "\xEF\xBB\xBF") == 0)
            line.erase(0, 3);
        const tk_string text = trim(line, 0, line.size());
        if (text.empty() || text[0] == '#' || text[0] == ';')
            continue;
        if (text[0] == '[') {
            if (text.back() != ']')
                return fail("malformed section line (no closing ']'): " + text);
            const tk_string label = trim(text, 1, text.size() - 1);
            if (_in_node) {
                // This section's keys are the next call's.
                node.set_origin(_path, _label, _label_line);
                _label = label;
                _label_line = _line;
                return 0;
            }
            _in_node = true;
            _label = label;
            _label_line = _line;
            continue;
        }
        const size_t eq = text.find('=');
        if (eq == tk_string::npos)
            return fail("malformed line (expected \"key = value\"): " + text);
        if (!_in_node)
            return fail("key before the first section: " + text);
        const tk_string key = trim(text, 0, eq);
        if (key.empty())
            return fail("malformed line (empty key): " + text);
        if (node.find(key) == node.end()) {
            node.emplace(key, trim(text, eq + 1, text.size()));
            node.set_line_of(key, _line);
        }
    }
    if (std::ferror(_in.get()))
        return fail(tk_string("read error: ") + std::strerror(errno));
    if (_in_node) {
        node.set_origin(_path, _label, _label_line);
        _in_node = false;
        return 0;
    }
    return 1;
}

} // namespace toolkit
