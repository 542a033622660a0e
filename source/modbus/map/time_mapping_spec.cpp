#include "modbus/map/time_mapping_spec.h"
#include "util/error.h"

#include <cassert>

bool CTimeMappingSpec::valid(const tk_string& spec) {
    return !spec.empty() && spec.find_first_not_of("dHIjmMSuwyYqQ") == tk_string::npos;
}

CTimeMappingSpec::CTimeMappingSpec(const tk_string& spec) : _str(spec) {
    if (!valid(_str))
        throw CError("not a date spec: '" + _str + "' (one or more of dHIjmMSuwyYqQ)", SS_MAPPING);
}

void CTimeMappingSpec::reverse_map(CProfileMapping& row) const {
    row[CProfileMapping::DATE_SPEC] = _str;
}

mbreg_t CTimeMappingSpec::translate(size_t offset, const tm& t, const timeval& tv) const {
    assert(offset < _str.size());
    const long ms = static_cast<long>(tv.tv_usec / 1000);
    long v = 0;
    switch (_str[offset]) {
    case 'd':
        v = t.tm_mday;
        break;
    case 'H':
        v = t.tm_hour;
        break;
    case 'I':
        v = t.tm_hour % 12 == 0 ? 12 : t.tm_hour % 12;
        break;
    case 'j':
        v = t.tm_yday + 1;
        break;
    case 'm':
        v = t.tm_mon + 1;
        break;
    case 'M':
        v = t.tm_min;
        break;
    case 'S':
        v = t.tm_sec;
        break;
    case 'u':
        v = t.tm_wday == 0 ? 7 : t.tm_wday;
        break;
    case 'w':
        v = t.tm_wday;
        break;
    case 'y':
        v = (t.tm_year + 1900L) % 100;
        break;
    case 'Y':
        v = t.tm_year + 1900L;
        break;
    case 'q':
        v = ms;
        break;
    case 'Q':
        v = t.tm_sec * 1000L + ms;
        break;
    default:
        assert(false);
    }
    return static_cast<mbreg_t>(v);
}

void CTimeMappingSpec::translate(size_t offset, mbreg_t value, tm& t, timeval& tv) const {
    assert(offset < _str.size());
    const int v = value;
    switch (_str[offset]) {
    case 'd':
        t.tm_mday = v;
        break;
    case 'H':
        t.tm_hour = v;
        break;
    case 'I':
        t.tm_hour = v == 0 || v == 12 ? 12 : v % 12;
        break;
    case 'j':
        t.tm_yday = v - 1;
        break;
    case 'm':
        t.tm_mon = v - 1;
        break;
    case 'M':
        t.tm_min = v;
        break;
    case 'S':
        t.tm_sec = v;
        break;
    case 'u':
        t.tm_wday = v == 0 ? 7 : v;
        break;
    case 'w':
        t.tm_wday = v;
        break;
    case 'y': {
        const int year = t.tm_year + 1900;
        t.tm_year = year - year % 100 + v - 1900;
        break;
    }
    case 'Y':
        t.tm_year = v;
        break;
    case 'q':
        tv.tv_usec = v * 1000L;
        break;
    case 'Q':
        t.tm_sec = v / 1000;
        tv.tv_usec = (v % 1000) * 1000L;
        break;
    default:
        assert(false);
    }
}

bool CTimeMappingSpec::double_specifier(size_t offset) const {
    assert(offset < _str.size());
    return offset + 1 < _str.size() && _str[offset + 1] == _str[offset];
}
