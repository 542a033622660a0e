#include "modbus/map/map_util.h"
#include "util/generic_err.h"

#include "toolkit/kvr.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <limits>

long CMapUtil::num(toolkit::node_map_t::const_iterator it) {
    const tk_string& text = it->second;
    if (text.empty())
        throw generic_err();
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 0);
    if (end != text.c_str() + text.size())
        throw generic_err();
    return value;
}

bool CMapUtil::flag(const toolkit::node_map_t& node, const char* key) {
    const auto it = node.find(key);
    return it != node.end() && !it->second.empty() && it->second != "0";
}

int32_t CMapUtil::scale(const toolkit::node_map_t& node, const char* key) {
    const auto it = node.find(key);
    if (it == node.end())
        return 0;
    const long value = std::clamp<long>(num(it), std::numeric_limits<int32_t>::min(),
                                        std::numeric_limits<int32_t>::max());
    if (value == 0)
        throw generic_err();
    return static_cast<int32_t>(value);
}

int CMapUtil::units(const toolkit::node_map_t& node, tk_string& text) {
    const auto it = node.find("Units");
    if (it == node.end())
        return KVR_UNITS_NONE;
    const int units = kvr_units_str_to_enum(it->second.c_str());
    if (units == KVR_UNITS_UNKNOWN)
        throw generic_err();
    text = it->second;
    return units;
}

double CMapUtil::units_factor(int from, int to) {
    if (from == KVR_UNITS_NONE || to == KVR_UNITS_NONE)
        return 0.0;
    return kvr_units_conversion_ratio(from, to);
}

void CMapUtil::swap_endianness(regvec_t& data) {
    assert(!data.empty());
    for (mbreg_t& r : data)
        r = static_cast<mbreg_t>((r << 8) | (r >> 8));
}

void CMapUtil::swap_word_order(regvec_t& data) {
    assert(!data.empty());
    std::reverse(data.begin(), data.end());
}
