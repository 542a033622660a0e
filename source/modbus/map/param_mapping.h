#pragma once
// Base of the mappings that bind one data-store parameter to Modbus addresses.
//
// The path comes from the node's "Name": the parameter's value path relative to the unit's
// device path (callers put the device path in front). It is never empty and has a '/'
// somewhere after its first character, so param_path() is never empty.
#include "toolkit/eds.h"

#include <cstddef>

class CParamMapping {
public:
    // Fails (CMapUtil::fail) when "Name" is missing or not such a path.
    CParamMapping(const toolkit::node_map_t& node, size_t id);
    virtual ~CParamMapping() = default;

    const tk_string& path() const { return _path; }
    // The parser's sequence number, shared by discrete and register mappings of a file.
    size_t id() const { return _id; }
    // The parameter's node: the path up to its last '/' (/A/B/Value gives /A/B).
    tk_string param_path() const;

private:
    tk_string _path;
    size_t _id;
};
