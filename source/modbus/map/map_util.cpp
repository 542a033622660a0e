#include "modbus/map/map_util.h"
#include "util/error.h"
#include "util/log.h"

#include "toolkit/kvr.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <limits>

tk_string CMapUtil::where(const toolkit::node_map_t& node, const char* key) {
    const auto it = key != nullptr ? node.find(key) : node.end();
    tk_string text;
    if (!node.path().empty())
        text = node.path() + ":" +
               std::to_string(it != node.end() ? node.line_of(key) : node.line()) + ": ";
    text += "[" + node.label() + "]";
    if (it != node.end())
        text += " " + it->first + " = " + it->second;
    return text;
}

void CMapUtil::fail(const toolkit::node_map_t& node, const char* key, const tk_string& why) {
    if (node.path().empty())
        throw CError("Bad mapping: " + where(node, key) + ": " + why, SS_MAPPING);
    throw CError("Error parsing EDS file: '" + node.path() + "': " + where(node, key) + ": " + why,
                 SS_MAPPING);
}

void CMapUtil::warn(const toolkit::node_map_t& node, const char* key, const tk_string& why) {
    LOG_WARN(SS_MAPPING, 0, "%s: %s", where(node, key).c_str(), why.c_str());
}

long CMapUtil::num(const toolkit::node_map_t& node, const char* key, long min, long max) {
    const auto it = node.find(key);
    if (it == node.end())
        fail(node, nullptr, tk_string("no ") + key);
    const tk_string& text = it->second;
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 0);
    if (text.empty() || end != text.c_str() + text.size())
        fail(node, key, "not a number");
    if (errno == ERANGE || value < min || value > max)
        fail(node, key,
             "out of range (" + std::to_string(min) + " to " + std::to_string(max) + ")");
    return value;
}

bool CMapUtil::flag(const toolkit::node_map_t& node, const char* key) {
    const auto it = node.find(key);
    return it != node.end() && !it->second.empty() && it->second != "0";
}

bool CMapUtil::boolean(const toolkit::node_map_t& node, const char* key) {
    const auto it = node.find(key);
    return it != node.end() && it->second == "true";
}

int32_t CMapUtil::scale(const toolkit::node_map_t& node, const char* key) {
    if (node.find(key) == node.end())
        return 0;
    const long v = num(node, key, std::numeric_limits<int32_t>::min(),
                       std::numeric_limits<int32_t>::max());
    // 0 would mean "no scaling" in one place and a division by zero in another.
    if (v == 0)
        fail(node, key, "must not be 0 (leave the key out for no scaling)");
    return static_cast<int32_t>(v);
}

int CMapUtil::units(const toolkit::node_map_t& node, tk_string& text) {
    const auto it = node.find("Units");
    if (it == node.end())
        return KVR_UNITS_NONE;
    const int units = kvr_units_str_to_enum(it->second.c_str());
    if (units == KVR_UNITS_UNKNOWN)
        fail(node, "Units", "units the store does not know");
    text = it->second;
    return units;
}

double CMapUtil::units_factor(int from, int to) {
    if (from == KVR_UNITS_NONE || to == KVR_UNITS_NONE)
        return 0.0;
    return kvr_units_conversion_ratio(from, to);
}

void CMapUtil::swap_endianness(mbreg_t* data, size_t count) {
    assert(data != nullptr && count != 0);
    for (size_t i = 0; i < count; ++i)
        data[i] = static_cast<mbreg_t>((data[i] << 8) | (data[i] >> 8));
}

void CMapUtil::swap_word_order(mbreg_t* data, size_t count) {
    assert(data != nullptr && count != 0);
    std::reverse(data, data + count);
}
