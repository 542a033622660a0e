#pragma once
// The JSON forms of a set of leaves, as cdsctl loads and dumps them.
//
// Tree: nested objects whose keys are path components, e.g.
//   {"Software": {"Port": 502, "Name": "unit 1"}}
// Flat: one object whose keys are absolute paths, e.g. {"/Software/Port": 502}.
// A leaf's type follows its JSON value (true/false: bool, whole numbers: int, or uint above
// the int range, other numbers: float, text: string) unless the leaf is written as an object
// with "$type": {"$type": "uint", "$value": 502, "$property": 3}. Times are typed leaves
// with ISO 8601 text or seconds as their value. Names starting with "$" are reserved.
// Bool leaves take true/false, 0/1 or their text; times must lie between the years 1 and 9999
// and fit the system's time_t.
#include "toolkit/cds_store.h"

#include <nlohmann/json.hpp>

#include <vector>

class CLeafJson {
public:
    // Nesting deeper than this is refused: no store path is that deep, and the reader
    // recurses once per level.
    static const size_t k_max_depth = 64;

    // JSON text to leaves: the whole path from the bytes of a file to the leaves to define.
    // Never throws; on failure returns false with one message that starts with name:
    // "NAME:LINE:COLUMN: reason" for a syntax error, "NAME: PATH: reason" for a bad leaf.
    static bool parse(const tk_string& text, const tk_string& name,
                      std::vector<toolkit::CLeafInfo>& leaves, tk_string& error);
    // Reads either form. On failure returns false with error naming the offending path.
    static bool from_json(const nlohmann::json& doc, std::vector<toolkit::CLeafInfo>& leaves,
                          tk_string& error);
    // Leaves sorted by path, as CCdsStore::list gives them.
    static bool to_tree(const std::vector<toolkit::CLeafInfo>& leaves, nlohmann::json& doc,
                        tk_string& error);
    static nlohmann::json to_flat(const std::vector<toolkit::CLeafInfo>& leaves);

    // The JSON value of one leaf: plain when its JSON type gives back the leaf's type, else
    // the "$type" object.
    static nlohmann::json leaf_value(const toolkit::CLeafInfo& leaf);

    // Refuses values that the store would take but change: a bool other than true, false, 0
    // or 1, a time outside the years 1 to 9999 or beyond time_t. error names the path.
    static bool check_value(const toolkit::CLeafInfo& leaf, tk_string& error);

private:
    static bool read_leaf(const tk_string& path, const nlohmann::json& value,
                          toolkit::CLeafInfo& leaf, tk_string& error);
    static size_t levels(const tk_string& path);
    static void read_tree(const tk_string& node, const nlohmann::json& object, size_t depth,
                          std::vector<toolkit::CLeafInfo>& leaves, tk_string& error);
};
