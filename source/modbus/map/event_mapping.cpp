#include "modbus/map/event_mapping.h"
#include "modbus/map/map_util.h"
#include "util/log.h"

#include <cassert>
#include <limits>
#include <string_view>

namespace {

const uint32_t no_value = 0xffffffffu;
const char* const property_names[] = {"ID", "Time", "Cause", "Param", "WaveformID"};

// Views, not copies: a register read must not allocate.
bool starts_with(std::string_view s, std::string_view prefix) {
    return s.substr(0, prefix.size()) == prefix;
}

bool contains(std::string_view s, std::string_view part) {
    return s.find(part) != std::string_view::npos;
}

} // namespace

CEventMapping::CEventMapping(const toolkit::node_map_t& node) {
    LOG_STACK();
    const auto iprop = node.find("EventProperty");
    if (iprop == node.end())
        CMapUtil::fail(node, nullptr, "no EventProperty");
    for (unsigned p = ID; p <= WAVEFORM_ID && _property == 0; ++p)
        if (iprop->second == property_names[p - 1])
            _property = p;
    if (_property == 0)
        CMapUtil::fail(node, "EventProperty", "not one of ID, Time, Cause, Param, WaveformID");
    const auto iindex = node.find("EventIndex");
    if (iindex != node.end() && !iindex->second.empty() && iindex->second[0] == '-')
        CMapUtil::fail(node, "EventIndex", "negative (0 is the newest event)");
    _index =
        static_cast<size_t>(CMapUtil::num(node, "EventIndex", 0, std::numeric_limits<long>::max()));
    LOG_DEBUG(SS_MAPPING, 9, "Creating event mapping (%zu:%s)", _index, iprop->second.c_str());
    _mapping = CRegisterMapping::create(node);
}

size_t CEventMapping::reg_count() const {
    return mapping().reg_count();
}

const CRegisterMapping& CEventMapping::mapping() const {
    assert(_mapping);
    return *_mapping;
}

bool CEventMapping::to_registers(const CEventQueue& events, mbreg_t* out) const {
    LOG_STACK();
    return mapping().to_registers(get_mapped_data(events), CModbusParamDynamicConfig(), out);
}

toolkit::CElement CEventMapping::get_mapped_data(const CEventQueue& events) const {
    LOG_STACK();
    const toolkit::CEvent& ev = events.get(_index);
    const timeval& stamp = toolkit::CElement::_invalid_time;
    switch (_property) {
    case ID:
        return toolkit::CElement::from_uint(ev.kind == 0 ? no_value : static_cast<uint32_t>(ev.id),
                                            stamp);
    case TIME:
        return toolkit::CElement::from_time(ev.time, stamp);
    case CAUSE:
        return toolkit::CElement::from_uint(find_cause(ev), stamp);
    case PARAM:
        return toolkit::CElement::from_float(0.0, stamp);
    case WAVEFORM_ID:
        return toolkit::CElement::from_uint(extract_waveform_id(ev), stamp);
    default:
        assert(false);
    }
    return toolkit::CElement();
}

unsigned CEventMapping::find_cause(const toolkit::CEvent& ev) {
    if (!ev.source)
        return 0;
    const std::string_view source(*ev.source);
    const size_t slash = source.rfind('/');
    if (slash == std::string_view::npos || slash + 1 == source.size())
        return 0;
    const std::string_view name = source.substr(slash + 1);
    if (name == "mDiscreteInput1")
        return 2;
    if (contains(name, "OverVolt"))
        return 11;
    if (contains(name, "UnderVolt"))
        return 12;
    if (starts_with(name, "mACV"))
        return ev.value >= 0 ? 11 : 12;
    if (starts_with(name, "mACI"))
        return 3;
    if (name == "mDiscreteInput2")
        return 81;
    if (name == "aL1Sag" || name == "aL2Sag" || name == "aL4Sag" || name == "aL8Sag")
        return 117;
    if (name == "aL1Swell" || name == "aL2Swell" || name == "aL4Swell" || name == "aL8Swell")
        return 118;
    if (name == "aFastTrans")
        return 142;
    return 0;
}

uint32_t CEventMapping::extract_waveform_id(const toolkit::CEvent& ev) {
    if (!ev.url || ev.url->empty())
        return no_value;
    const tk_string& url = *ev.url;
    const char* const digits = "0123456789";
    const size_t last = url.find_last_of(digits);
    if (last == tk_string::npos) {
        LOG_WARN(SS_MAPPING, 2, "Can't extract number from URL '%s'", url.c_str());
        return no_value;
    }
    const size_t before = url.find_last_not_of(digits, last);
    const size_t first = before == tk_string::npos ? 0 : before + 1;
    assert(last >= first);
    // Parsed in place, in 64 bits, so that the same digits give the same answer wherever
    // long is 32 bits; past 32 bits there is no id.
    uint64_t value = 0;
    for (size_t i = first; i <= last; ++i) {
        value = value * 10 + static_cast<unsigned>(url[i] - '0');
        if (value > no_value) {
            LOG_WARN(SS_MAPPING, 2, "Bad conversion from number in URL '%s' (%.*s)", url.c_str(),
                     static_cast<int>(last - first + 1), url.c_str() + first);
            return no_value;
        }
    }
    return static_cast<uint32_t>(value);
}
