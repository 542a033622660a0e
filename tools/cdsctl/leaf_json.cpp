#include "leaf_json.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>

using nlohmann::json;
using toolkit::CElement;
using toolkit::CLeafInfo;

namespace {

bool is_typed_leaf(const json& value) {
    return value.is_object() && value.contains("$type");
}

// The element a plain JSON scalar stands for, and so the leaf's type.
bool scalar_element(const json& value, CElement& element) {
    switch (value.type()) {
    case json::value_t::boolean:
        element = CElement::from_bool(value.get<bool>());
        return true;
    case json::value_t::number_integer:
        element = CElement::from_int(value.get<int64_t>());
        return true;
    case json::value_t::number_unsigned: {
        const uint64_t u = value.get<uint64_t>();
        element = u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())
                      ? CElement::from_uint(u)
                      : CElement::from_int(static_cast<int64_t>(u));
        return true;
    }
    case json::value_t::number_float:
        element = CElement::from_float(value.get<double>());
        return true;
    case json::value_t::string:
        element = CElement::from_string(value.get<tk_string>());
        return true;
    default:
        return false;
    }
}

// 0001-01-01T00:00:00Z and 9999-12-31T23:59:59Z: the years that ISO 8601 text writes with
// four digits, so that a dump reads back. A 32-bit time_t narrows this further.
const double k_first_second =
    std::max(-62135596800.0, static_cast<double>(std::numeric_limits<time_t>::min()));
const double k_last_second =
    std::min(253402300799.0, static_cast<double>(std::numeric_limits<time_t>::max()));

// "LINE:COLUMN" of the byte at offset `byte` (1-based, as the JSON library counts).
tk_string position(const tk_string& text, size_t byte) {
    size_t line = 1, column = 0;
    for (size_t i = 0; i < byte && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++line;
            column = 0;
        } else {
            ++column;
        }
    }
    return std::to_string(line) + ":" + std::to_string(column);
}

// The library's message without its "[json.exception...] " prefix and, for syntax errors,
// without the position it repeats.
tk_string reason_of(const json::exception& e) {
    tk_string reason = e.what();
    const size_t bracket = reason.find("] ");
    if (reason.compare(0, 1, "[") == 0 && bracket != tk_string::npos)
        reason.erase(0, bracket + 2);
    const size_t col = reason.find("column ");
    const size_t colon = col == tk_string::npos ? col : reason.find(": ", col);
    if (colon != tk_string::npos)
        reason.erase(0, colon + 2);
    return reason;
}

// Where a number the library could not hold (it names it as 'TOKEN') first stands in text.
size_t number_offset(const tk_string& text, const tk_string& reason) {
    const size_t open = reason.find('\'');
    const size_t close = open == tk_string::npos ? open : reason.find('\'', open + 1);
    if (close == tk_string::npos || close == open + 1)
        return 0;
    const tk_string token = reason.substr(open + 1, close - open - 1);
    for (size_t at = text.find(token); at != tk_string::npos; at = text.find(token, at + 1)) {
        const bool starts = at == 0 || !std::isalnum(static_cast<unsigned char>(text[at - 1]));
        const size_t end = at + token.size();
        if (starts && (end == text.size() || !std::isalnum(static_cast<unsigned char>(text[end]))))
            return at + 1;
    }
    return 0;
}

const char* json_kind(const json& value) {
    return value.is_null() ? "null" : value.is_array() ? "an array" : "an object";
}

} // namespace

bool CLeafJson::read_leaf(const tk_string& path, const json& value, CLeafInfo& leaf,
                          tk_string& error) {
    leaf.path = path;
    if (!is_typed_leaf(value)) {
        if (!scalar_element(value, leaf.value)) {
            error = path + ": " + json_kind(value) + " is not a leaf value";
            return false;
        }
        leaf.type = leaf.value.type();
        return true;
    }
    for (auto it = value.begin(); it != value.end(); ++it) {
        if (it.key() != "$type" && it.key() != "$value" && it.key() != "$property") {
            error = path + ": unknown key \"" + it.key() + "\" in a typed leaf";
            return false;
        }
    }
    const json& type = value["$type"];
    if (!type.is_string() || !CElement::type_from_name(type.get<tk_string>(), leaf.type)) {
        error = path + ": \"$type\" must be one of bool, int, uint, float, string, time";
        return false;
    }
    if (!value.contains("$value") || !scalar_element(value["$value"], leaf.value)) {
        error = path + ": a typed leaf needs a \"$value\" that is a number, text or bool";
        return false;
    }
    if (value.contains("$property")) {
        const json& prop = value["$property"];
        if (!prop.is_number_unsigned() ||
            prop.get<uint64_t>() > std::numeric_limits<element_property_t>::max()) {
            error = path + ": \"$property\" must be a number from 0 to 4294967295";
            return false;
        }
        leaf.property = static_cast<element_property_t>(prop.get<uint64_t>());
    }
    return check_value(leaf, error);
}

bool CLeafJson::check_value(const CLeafInfo& leaf, tk_string& error) {
    const CElement& v = leaf.value;
    if (leaf.type == CElement::TYPE_BOOL) {
        tk_string text = v.str();
        std::transform(text.begin(), text.end(), text.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (text == "true" || text == "false" || text == "0" || text == "1")
            return true;
        error = leaf.path + ": '" + v.str() + "' is not a bool (true, false, 0 or 1)";
        return false;
    }
    if (leaf.type != CElement::TYPE_TIME)
        return true;
    // Seconds are checked before the store converts them, which would clamp them to time_t.
    CElement seconds;
    if (v.type() == CElement::TYPE_BOOL || !CElement::convert(v, CElement::TYPE_FLOAT, seconds)) {
        timeval t;
        if (v.type() == CElement::TYPE_STRING && CElement::time_from_string(v.str(), t))
            return true;
        error = leaf.path + ": '" + v.str() +
                "' is not a time (ISO 8601 UTC text or seconds since 1970)";
        return false;
    }
    const double s = seconds.to_float();
    if (std::isfinite(s) && s >= k_first_second && s < k_last_second + 1)
        return true;
    timeval first{static_cast<time_t>(k_first_second), 0};
    timeval last{static_cast<time_t>(k_last_second), 0};
    error = leaf.path + ": time " + v.str() + " is out of range (" +
            CElement::time_to_string(first) + " to " + CElement::time_to_string(last) + ")";
    return false;
}

// The names in a path; repeated slashes count as one.
size_t CLeafJson::levels(const tk_string& path) {
    size_t n = 0;
    for (size_t i = 0; i < path.size(); ++i)
        n += path[i] != '/' && (i == 0 || path[i - 1] == '/');
    return n;
}

void CLeafJson::read_tree(const tk_string& node, const json& object, size_t depth,
                          std::vector<CLeafInfo>& leaves, tk_string& error) {
    if (depth > k_max_depth) {
        error = node.substr(0, 200) + "...: nesting deeper than " + std::to_string(k_max_depth) +
                " levels";
        return;
    }
    for (auto it = object.begin(); it != object.end() && error.empty(); ++it) {
        const tk_string path = node + "/" + it.key();
        if (it.key().empty() || it.key().find('/') != tk_string::npos) {
            error = path + ": a name cannot be empty or hold '/'";
        } else if (it.key()[0] == '$') {
            error = path + ": names starting with '$' are reserved";
        } else if (it.value().is_object() && !is_typed_leaf(it.value())) {
            if (it.value().empty())
                error = path + ": an empty object is neither a leaf nor a node";
            else
                read_tree(path, it.value(), depth + 1, leaves, error);
        } else {
            leaves.emplace_back();
            read_leaf(path, it.value(), leaves.back(), error);
        }
    }
}

bool CLeafJson::from_json(const json& doc, std::vector<CLeafInfo>& leaves, tk_string& error) {
    leaves.clear();
    error.clear();
    if (!doc.is_object()) {
        error = "the document must be a JSON object (a tree or a map of paths)";
        return false;
    }
    size_t absolute = 0;
    for (auto it = doc.begin(); it != doc.end(); ++it)
        absolute += !it.key().empty() && it.key()[0] == '/';
    if (absolute == 0) {
        read_tree("", doc, 1, leaves, error);
        return error.empty();
    }
    for (auto it = doc.begin(); it != doc.end(); ++it) {
        if (it.key().empty() || it.key()[0] != '/') {
            error = "\"" + it.key() + "\": a map of paths needs absolute paths throughout";
            return false;
        }
        // The same limit as the tree form, so that every store loaded can be dumped as a
        // tree and loaded back.
        if (levels(it.key()) > k_max_depth) {
            error = it.key().substr(0, 200) + "...: nesting deeper than " +
                    std::to_string(k_max_depth) + " levels";
            return false;
        }
        leaves.emplace_back();
        if (!read_leaf(it.key(), it.value(), leaves.back(), error))
            return false;
    }
    return true;
}

bool CLeafJson::parse(const tk_string& text, const tk_string& name, std::vector<CLeafInfo>& leaves,
                      tk_string& error) {
    leaves.clear();
    // The library parses without recursion and reports numbers it cannot hold (1e400) with
    // an exception of its own; anything it throws is a fault of the text.
    json doc;
    try {
        doc = json::parse(text);
    } catch (const json::parse_error& e) {
        error = name + ":" + position(text, e.byte) + ": " + reason_of(e);
        return false;
    } catch (const json::exception& e) {
        const tk_string reason = reason_of(e);
        const size_t at = number_offset(text, reason);
        error = name + ":" + (at != 0 ? position(text, at) + ":" : tk_string()) + " " + reason;
        return false;
    }
    if (from_json(doc, leaves, error))
        return true;
    error = name + ": " + error;
    leaves.clear();
    return false;
}

json CLeafJson::leaf_value(const CLeafInfo& leaf) {
    const CElement& v = leaf.value;
    json plain;
    bool exact = leaf.property == 0;
    switch (leaf.type) {
    case CElement::TYPE_BOOL:
        plain = v.to_bool();
        break;
    case CElement::TYPE_INT:
        plain = v.to_int();
        break;
    case CElement::TYPE_FLOAT:
        // JSON has no NaN or infinity: those keep their text in a typed leaf.
        if (std::isfinite(v.to_float()))
            plain = v.to_float();
        else
            return json{{"$type", "float"}, {"$value", v.str()}};
        break;
    case CElement::TYPE_STRING:
        plain = v.str();
        break;
    case CElement::TYPE_UINT:
        plain = v.to_uint();
        exact = false;
        break;
    default:
        plain = v.str();
        exact = false;
    }
    if (exact)
        return plain;
    json typed{{"$type", CElement::type_name(leaf.type)}, {"$value", plain}};
    if (leaf.property != 0)
        typed["$property"] = leaf.property;
    return typed;
}

bool CLeafJson::to_tree(const std::vector<CLeafInfo>& leaves, json& doc, tk_string& error) {
    doc = json::object();
    for (const CLeafInfo& leaf : leaves) {
        std::vector<tk_string> names;
        CElement::split_string(names, leaf.path, '/');
        json* node = &doc;
        for (size_t i = 0; i < names.size(); ++i) {
            if (names[i][0] == '$') {
                error = leaf.path + ": a name starting with '$' has no tree form; dump --flat";
                return false;
            }
            json& child = (*node)[names[i]];
            if (i + 1 == names.size()) {
                if (!child.is_null()) {
                    error = leaf.path + ": is both a leaf and a node; dump --flat";
                    return false;
                }
                child = leaf_value(leaf);
            } else if (!child.is_null() && (!child.is_object() || is_typed_leaf(child))) {
                error = leaf.path + ": a leaf lies on its path; dump --flat";
                return false;
            }
            node = &child;
        }
    }
    return true;
}

json CLeafJson::to_flat(const std::vector<CLeafInfo>& leaves) {
    json doc = json::object();
    for (const CLeafInfo& leaf : leaves)
        doc[leaf.path] = leaf_value(leaf);
    return doc;
}
