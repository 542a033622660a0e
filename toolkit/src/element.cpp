#include "toolkit/element.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

namespace toolkit {

const timeval CElement::_invalid_time = {0, 0};

namespace {

// 2^63 and 2^64 as doubles: the first values that no longer fit.
const double k_two63 = 9223372036854775808.0;
const double k_two64 = 18446744073709551616.0;

const char* const k_type_names[] = {"none", "bool", "int", "uint", "float", "string", "time"};

tk_string trimmed(const tk_string& text) {
    const char* blanks = " \t\r\n";
    const size_t first = text.find_first_not_of(blanks);
    if (first == tk_string::npos)
        return tk_string();
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// from_chars does not take a leading '+'.
const char* skip_plus(const tk_string& t) {
    return t.size() > 1 && t[0] == '+' && t[1] != '-' ? t.data() + 1 : t.data();
}

bool parse_int(const tk_string& text, int64_t& out) {
    const tk_string t = trimmed(text);
    const char* end = t.data() + t.size();
    auto r = std::from_chars(skip_plus(t), end, out);
    return !t.empty() && r.ec == std::errc() && r.ptr == end;
}

bool parse_uint(const tk_string& text, uint64_t& out) {
    const tk_string t = trimmed(text);
    const char* end = t.data() + t.size();
    auto r = std::from_chars(skip_plus(t), end, out);
    return !t.empty() && r.ec == std::errc() && r.ptr == end;
}

bool parse_float(const tk_string& text, double& out) {
    const tk_string t = trimmed(text);
    const char* end = t.data() + t.size();
    auto r = std::from_chars(skip_plus(t), end, out);
    return !t.empty() && r.ec == std::errc() && r.ptr == end;
}

bool parse_bool(const tk_string& text, bool& out) {
    tk_string t = trimmed(text);
    for (char& c : t)
        c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    if (t == "true" || t == "yes" || t == "on") {
        out = true;
        return true;
    }
    if (t == "false" || t == "no" || t == "off") {
        out = false;
        return true;
    }
    double d;
    if (!parse_float(t, d) || std::isnan(d))
        return false;
    out = d != 0.0;
    return true;
}

// Lenient float to integer: truncation, clamped, NaN is 0.
int64_t clamp_to_int(double f) {
    if (std::isnan(f))
        return 0;
    if (f >= k_two63)
        return std::numeric_limits<int64_t>::max();
    if (f <= -k_two63)
        return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(f);
}

uint64_t clamp_to_uint(double f) {
    if (std::isnan(f))
        return 0;
    if (f < 0)
        return static_cast<uint64_t>(clamp_to_int(f));
    if (f >= k_two64)
        return std::numeric_limits<uint64_t>::max();
    return static_cast<uint64_t>(f);
}

// Strict float to integer: rounded to the nearest, and it must fit.
bool round_to_int(double f, int64_t& out) {
    if (!std::isfinite(f))
        return false;
    const double r = std::round(f);
    if (r < -k_two63 || r >= k_two63)
        return false;
    out = static_cast<int64_t>(r);
    return true;
}

bool round_to_uint(double f, uint64_t& out) {
    if (!std::isfinite(f))
        return false;
    const double r = std::round(f);
    if (r < 0 || r >= k_two64)
        return false;
    out = static_cast<uint64_t>(r);
    return true;
}

time_t clamp_time(int64_t sec) {
    if (sec > std::numeric_limits<time_t>::max())
        return std::numeric_limits<time_t>::max();
    if (sec < std::numeric_limits<time_t>::min())
        return std::numeric_limits<time_t>::min();
    return static_cast<time_t>(sec);
}

timeval seconds_to_timeval(double f) {
    const double sec = std::floor(f);
    int64_t usec = static_cast<int64_t>(std::round((f - sec) * 1e6));
    int64_t whole = clamp_to_int(sec);
    if (usec >= 1000000) {
        usec -= 1000000;
        ++whole;
    }
    timeval t;
    t.tv_sec = clamp_time(whole);
    t.tv_usec = static_cast<suseconds_t>(usec);
    return t;
}

// Days since 1970-01-01 of a proleptic Gregorian date, and back; int64 throughout so
// that nothing depends on the width of time_t.
int64_t days_from_civil(int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void civil_from_days(int64_t z, int64_t& y, unsigned& m, unsigned& d) {
    z += 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    d = doy - (153 * mp + 2) / 5 + 1;
    m = mp < 10 ? mp + 3 : mp - 9;
    y = static_cast<int64_t>(yoe) + era * 400 + (m <= 2);
}

unsigned days_in_month(int64_t y, unsigned m) {
    static const unsigned days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    return m == 2 && leap ? 29 : days[m - 1];
}

// Reads exactly n digits at text[pos].
bool digits(const tk_string& text, size_t& pos, size_t n, unsigned& out) {
    out = 0;
    for (size_t i = 0; i < n; ++i, ++pos) {
        if (pos >= text.size() || text[pos] < '0' || text[pos] > '9')
            return false;
        out = out * 10 + static_cast<unsigned>(text[pos] - '0');
    }
    return true;
}

bool expect(const tk_string& text, size_t& pos, const char* choices) {
    if (pos >= text.size() || !std::strchr(choices, text[pos]) || text[pos] == '\0')
        return false;
    ++pos;
    return true;
}

} // namespace

CElement::CElement() = default;

CElement::CElement(const CElement& other, const timeval& stamp) : CElement(other) {
    _stamp = stamp;
}

CElement::CElement(CElement&& other, const timeval& stamp) : CElement(std::move(other)) {
    _stamp = stamp;
}

CElement CElement::from_bool(bool value, const timeval& stamp) {
    CElement e;
    e._type = TYPE_BOOL;
    e._num.b = value;
    e._stamp = stamp;
    return e;
}

CElement CElement::from_int(int64_t value, const timeval& stamp) {
    CElement e;
    e._type = TYPE_INT;
    e._num.i = value;
    e._stamp = stamp;
    return e;
}

CElement CElement::from_uint(uint64_t value, const timeval& stamp) {
    CElement e;
    e._type = TYPE_UINT;
    e._num.u = value;
    e._stamp = stamp;
    return e;
}

CElement CElement::from_float(double value, const timeval& stamp) {
    CElement e;
    e._type = TYPE_FLOAT;
    e._num.f = value;
    e._stamp = stamp;
    return e;
}

CElement CElement::from_string(const tk_string& value, const timeval& stamp) {
    CElement e;
    e._type = TYPE_STRING;
    e._text = value;
    e._stamp = stamp;
    return e;
}

CElement CElement::from_time(const timeval& value, const timeval& stamp) {
    CElement e;
    e._type = TYPE_TIME;
    e._tv = value;
    e._stamp = stamp;
    return e;
}

bool CElement::is_numeric() const {
    return _type == TYPE_INT || _type == TYPE_UINT || _type == TYPE_FLOAT;
}

bool CElement::converted_to_bool() const {
    bool b = false;
    switch (_type) {
    case TYPE_NONE:
        return false;
    case TYPE_BOOL:
        return _num.b;
    case TYPE_INT:
        return _num.i != 0;
    case TYPE_UINT:
        return _num.u != 0;
    case TYPE_FLOAT:
        return !std::isnan(_num.f) && _num.f != 0.0;
    case TYPE_STRING:
        return parse_bool(_text, b) && b;
    case TYPE_TIME:
        return _tv.tv_sec != 0 || _tv.tv_usec != 0;
    }
    return false;
}

int64_t CElement::to_int() const {
    switch (_type) {
    case TYPE_NONE:
        return 0;
    case TYPE_BOOL:
        return _num.b ? 1 : 0;
    case TYPE_INT:
        return _num.i;
    case TYPE_UINT:
        return static_cast<int64_t>(_num.u);
    case TYPE_FLOAT:
        return clamp_to_int(_num.f);
    case TYPE_STRING: {
        int64_t i;
        if (parse_int(_text, i))
            return i;
        uint64_t u;
        if (parse_uint(_text, u))
            return static_cast<int64_t>(u);
        double f;
        return parse_float(_text, f) ? clamp_to_int(f) : 0;
    }
    case TYPE_TIME:
        return static_cast<int64_t>(_tv.tv_sec);
    }
    return 0;
}

uint64_t CElement::to_uint() const {
    switch (_type) {
    case TYPE_UINT:
        return _num.u;
    case TYPE_FLOAT:
        return clamp_to_uint(_num.f);
    case TYPE_STRING: {
        uint64_t u;
        if (parse_uint(_text, u))
            return u;
        int64_t i;
        if (parse_int(_text, i))
            return static_cast<uint64_t>(i);
        double f;
        return parse_float(_text, f) ? clamp_to_uint(f) : 0;
    }
    default:
        return static_cast<uint64_t>(to_int());
    }
}

double CElement::to_float() const {
    switch (_type) {
    case TYPE_NONE:
        return 0.0;
    case TYPE_BOOL:
        return _num.b ? 1.0 : 0.0;
    case TYPE_INT:
        return static_cast<double>(_num.i);
    case TYPE_UINT:
        return static_cast<double>(_num.u);
    case TYPE_FLOAT:
        return _num.f;
    case TYPE_STRING: {
        double f;
        return parse_float(_text, f) ? f : 0.0;
    }
    case TYPE_TIME:
        return static_cast<double>(_tv.tv_sec) + static_cast<double>(_tv.tv_usec) / 1e6;
    }
    return 0.0;
}

void CElement::to_string(tk_string& out) const {
    char buf[64];
    switch (_type) {
    case TYPE_NONE:
        out.clear();
        return;
    case TYPE_BOOL:
        out = _num.b ? "true" : "false";
        return;
    case TYPE_INT:
        std::snprintf(buf, sizeof buf, "%lld", static_cast<long long>(_num.i));
        out = buf;
        return;
    case TYPE_UINT:
        std::snprintf(buf, sizeof buf, "%llu", static_cast<unsigned long long>(_num.u));
        out = buf;
        return;
    case TYPE_FLOAT: {
        auto r = std::to_chars(buf, buf + sizeof buf, _num.f);
        out.assign(buf, r.ptr);
        return;
    }
    case TYPE_STRING:
        out = _text;
        return;
    case TYPE_TIME:
        out = time_to_string(_tv);
        return;
    }
}

tk_string CElement::str() const {
    tk_string s;
    to_string(s);
    return s;
}

timeval CElement::to_timeval() const {
    timeval t{0, 0};
    switch (_type) {
    case TYPE_TIME:
        return _tv;
    case TYPE_INT:
        t.tv_sec = clamp_time(_num.i);
        return t;
    case TYPE_UINT:
        t.tv_sec = clamp_time(_num.u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())
                                  ? std::numeric_limits<int64_t>::max()
                                  : static_cast<int64_t>(_num.u));
        return t;
    case TYPE_FLOAT:
        return std::isfinite(_num.f) ? seconds_to_timeval(_num.f) : t;
    case TYPE_STRING:
        if (!time_from_string(_text, t))
            t = timeval{0, 0};
        return t;
    default:
        return t;
    }
}

void CElement::split_string(std::vector<tk_string>& out, const tk_string& text, char separator) {
    out.clear();
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find(separator, start);
        if (end == tk_string::npos)
            end = text.size();
        if (end > start)
            out.push_back(text.substr(start, end - start));
        start = end + 1;
    }
}

bool CElement::convert(const CElement& in, type_t to, CElement& out) {
    CElement r;
    r._type = to;
    r._stamp = in._stamp;
    int64_t i;
    uint64_t u;
    double f;
    switch (to) {
    case TYPE_NONE:
        return false;
    case TYPE_BOOL:
        if (in._type == TYPE_STRING) {
            if (!parse_bool(in._text, r._num.b))
                return false;
        } else if (in._type == TYPE_NONE || in._type == TYPE_TIME ||
                   (in._type == TYPE_FLOAT && std::isnan(in._num.f))) {
            return false;
        } else {
            r._num.b = in.to_bool();
        }
        break;
    case TYPE_INT:
        switch (in._type) {
        case TYPE_NONE:
            return false;
        case TYPE_UINT:
            if (in._num.u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
                return false;
            r._num.i = static_cast<int64_t>(in._num.u);
            break;
        case TYPE_FLOAT:
            if (!round_to_int(in._num.f, r._num.i))
                return false;
            break;
        case TYPE_STRING:
            if (parse_int(in._text, i))
                r._num.i = i;
            else if (!parse_float(in._text, f) || !round_to_int(f, r._num.i))
                return false;
            break;
        default:
            r._num.i = in.to_int();
        }
        break;
    case TYPE_UINT:
        switch (in._type) {
        case TYPE_NONE:
            return false;
        case TYPE_INT:
            if (in._num.i < 0)
                return false;
            r._num.u = static_cast<uint64_t>(in._num.i);
            break;
        case TYPE_FLOAT:
            if (!round_to_uint(in._num.f, r._num.u))
                return false;
            break;
        case TYPE_STRING:
            if (parse_uint(in._text, u))
                r._num.u = u;
            else if (!parse_float(in._text, f) || !round_to_uint(f, r._num.u))
                return false;
            break;
        case TYPE_TIME:
            if (in._tv.tv_sec < 0)
                return false;
            r._num.u = static_cast<uint64_t>(in._tv.tv_sec);
            break;
        default:
            r._num.u = in.to_uint();
        }
        break;
    case TYPE_FLOAT:
        if (in._type == TYPE_NONE || (in._type == TYPE_STRING && !parse_float(in._text, f)))
            return false;
        r._num.f = in.to_float();
        break;
    case TYPE_STRING:
        if (in._type == TYPE_NONE)
            return false;
        in.to_string(r._text);
        break;
    case TYPE_TIME:
        if (in._type == TYPE_NONE || in._type == TYPE_BOOL)
            return false;
        if (in._type == TYPE_STRING && !time_from_string(in._text, r._tv))
            return false;
        if (in._type == TYPE_FLOAT && !std::isfinite(in._num.f))
            return false;
        if (in._type != TYPE_STRING)
            r._tv = in.to_timeval();
        break;
    }
    out = std::move(r);
    return true;
}

const char* CElement::type_name(type_t type) {
    return static_cast<unsigned>(type) <= TYPE_TIME ? k_type_names[type] : "?";
}

bool CElement::type_from_name(const tk_string& name, type_t& type) {
    for (unsigned i = TYPE_BOOL; i <= TYPE_TIME; ++i) {
        if (name == k_type_names[i]) {
            type = static_cast<type_t>(i);
            return true;
        }
    }
    return false;
}

tk_string CElement::time_to_string(const timeval& t) {
    int64_t sec = static_cast<int64_t>(t.tv_sec) + t.tv_usec / 1000000;
    int64_t usec = t.tv_usec % 1000000;
    if (usec < 0) {
        usec += 1000000;
        --sec;
    }
    int64_t days = sec / 86400;
    int64_t rem = sec % 86400;
    if (rem < 0) {
        rem += 86400;
        --days;
    }
    int64_t y;
    unsigned m, d;
    civil_from_days(days, y, m, d);
    char buf[80];
    std::snprintf(buf, sizeof buf, "%04lld-%02u-%02uT%02u:%02u:%02u.%06uZ",
                  static_cast<long long>(y), m, d, static_cast<unsigned>(rem / 3600),
                  static_cast<unsigned>(rem / 60 % 60), static_cast<unsigned>(rem % 60),
                  static_cast<unsigned>(usec));
    return buf;
}

bool CElement::time_from_string(const tk_string& text, timeval& t) {
    const tk_string s = trimmed(text);
    double f;
    if (parse_float(s, f)) {
        if (!std::isfinite(f))
            return false;
        int64_t i;
        if (parse_int(s, i)) {
            t.tv_sec = clamp_time(i);
            t.tv_usec = 0;
        } else {
            t = seconds_to_timeval(f);
        }
        return true;
    }
    size_t pos = 0;
    unsigned year, mon, day, hour, min, sec;
    if (!digits(s, pos, 4, year) || !expect(s, pos, "-") || !digits(s, pos, 2, mon) ||
        !expect(s, pos, "-") || !digits(s, pos, 2, day) || !expect(s, pos, "T ") ||
        !digits(s, pos, 2, hour) || !expect(s, pos, ":") || !digits(s, pos, 2, min) ||
        !expect(s, pos, ":") || !digits(s, pos, 2, sec))
        return false;
    if (mon < 1 || mon > 12 || day < 1 || day > days_in_month(year, mon) || hour > 23 || min > 59 ||
        sec > 59)
        return false;
    unsigned usec = 0;
    if (pos < s.size() && s[pos] == '.') {
        ++pos;
        unsigned scale = 100000, n = 0;
        for (; pos < s.size() && s[pos] >= '0' && s[pos] <= '9'; ++pos, ++n) {
            usec += static_cast<unsigned>(s[pos] - '0') * scale;
            scale /= 10;
        }
        if (n == 0)
            return false;
    }
    if (pos < s.size() && s[pos] == 'Z')
        ++pos;
    if (pos != s.size())
        return false;
    const int64_t secs = days_from_civil(year, mon, day) * 86400 + hour * 3600 + min * 60 +
                         static_cast<int64_t>(sec);
    if (secs > std::numeric_limits<time_t>::max() || secs < std::numeric_limits<time_t>::min())
        return false;
    t.tv_sec = static_cast<time_t>(secs);
    t.tv_usec = static_cast<suseconds_t>(usec);
    return true;
}

} // namespace toolkit
