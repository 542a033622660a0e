#include "leaf_json.h"

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
    return true;
}

void CLeafJson::read_tree(const tk_string& node, const json& object, std::vector<CLeafInfo>& leaves,
                          tk_string& error) {
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
                read_tree(path, it.value(), leaves, error);
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
        read_tree("", doc, leaves, error);
        return error.empty();
    }
    for (auto it = doc.begin(); it != doc.end(); ++it) {
        if (it.key().empty() || it.key()[0] != '/') {
            error = "\"" + it.key() + "\": a map of paths needs absolute paths throughout";
            return false;
        }
        leaves.emplace_back();
        if (!read_leaf(it.key(), it.value(), leaves.back(), error))
            return false;
    }
    return true;
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
