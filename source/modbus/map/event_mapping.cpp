#include "modbus/map/event_mapping.h"
#include "modbus/map/map_util.h"
#include "util/log.h"

#include <cassert>
#include <cerrno>
#include <cstdlib>

namespace {

const uint32_t no_value = 0xffffffffu;
const char* const property_names[] = {"ID", "Time", "Cause", "Param", "WaveformID"};

bool starts_with(const tk_string& s, const char* prefix) {
    return s.rfind(prefix, 0) == 0;
}

bool contains(const tk_string& s, const char* part) {
    return s.find(part) != tk_string::npos;
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
    // The event queue holds max index + 1 slots: keep it to what a register address can name.
    _index = static_cast<size_t>(CMapUtil::num(node, "EventIndex", 0, 65535));
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

regvec_t CEventMapping::to_registers(const CEventQueue& events) const {
    LOG_STACK();
    return mapping().to_registers(get_mapped_data(events), CModbusParamDynamicConfig());
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
    const size_t slash = ev.source->rfind('/');
    if (slash == tk_string::npos || slash + 1 == ev.source->size())
        return 0;
    const tk_string name = ev.source->substr(slash + 1);
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
    const tk_string numeric_str = url.substr(first, last - first + 1);
    assert(!numeric_str.empty());
    char* pend = nullptr;
    errno = 0;
    // 64 bits, so that the same digits give the same answer wherever long is 32 bits.
    const long long value = std::strtoll(numeric_str.c_str(), &pend, 10);
    assert(pend != nullptr);
    if (*pend != '\0' || value < 0 || errno == ERANGE || value > static_cast<long long>(no_value)) {
        LOG_WARN(SS_MAPPING, 2, "Bad conversion from number in URL '%s' (%s)", url.c_str(),
                 numeric_str.c_str());
        return no_value;
    }
    return static_cast<uint32_t>(value);
}
