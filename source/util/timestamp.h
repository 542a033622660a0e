#pragma once
// A point in time (or a span) as seconds and nanoseconds, with a text form.
#include "toolkit/tk_string.h"

#include <cstdint>
#include <ctime>

class CTimestamp {
public:
    // strftime format of the text form.
    static const char* _str_fmt;

    CTimestamp() = default;
    CTimestamp(time_t sec, int32_t nsec) : _sec(sec), _nsec(nsec) {}
    static CTimestamp now(); // CLOCK_REALTIME

    time_t sec() const { return _sec; }
    int32_t nsec() const { return _nsec; }

    // Brings nanoseconds into (-1e9, 1e9) and gives them the sign of the seconds.
    void normalize();
    // The seconds in _str_fmt (UTC or local), then "." and the nanoseconds, unpadded.
    tk_string time_str(bool utc) const;

    // Whole span in nanoseconds, and back (normalised).
    int64_t to_nsec() const { return static_cast<int64_t>(_sec) * 1000000000 + _nsec; }
    static CTimestamp from_nsec(int64_t nsec);

    bool operator==(const CTimestamp& x) const { return _sec == x._sec && _nsec == x._nsec; }
    bool operator!=(const CTimestamp& x) const { return !(*this == x); }

private:
    time_t _sec = 0;
    int32_t _nsec = 0;
};
