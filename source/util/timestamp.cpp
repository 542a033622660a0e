#include "util/timestamp.h"

#include <cstdio>

const char* CTimestamp::_str_fmt = "%F %T";

namespace {
constexpr int32_t ns_per_sec = 1000000000;
}

CTimestamp CTimestamp::now() {
    timespec ts{};
    ::clock_gettime(CLOCK_REALTIME, &ts);
    return CTimestamp(ts.tv_sec, static_cast<int32_t>(ts.tv_nsec));
}

CTimestamp CTimestamp::from_nsec(int64_t nsec) {
    CTimestamp t(static_cast<time_t>(nsec / ns_per_sec), static_cast<int32_t>(nsec % ns_per_sec));
    t.normalize();
    return t;
}

void CTimestamp::normalize() {
    while (_nsec > ns_per_sec - 1) {
        _nsec -= ns_per_sec;
        ++_sec;
    }
    while (_nsec < -(ns_per_sec - 1)) {
        _nsec += ns_per_sec;
        --_sec;
    }
    if (_sec > 0 && _nsec < 0) {
        _nsec += ns_per_sec;
        --_sec;
    } else if (_sec < 0 && _nsec > 0) {
        _nsec -= ns_per_sec;
        ++_sec;
    }
}

tk_string CTimestamp::time_str(bool utc) const {
    const time_t secs = _sec;
    tm parts{};
    if (utc)
        ::gmtime_r(&secs, &parts);
    else
        ::localtime_r(&secs, &parts);
    char text[64 + 1];
    const size_t len = std::strftime(text, 64, _str_fmt, &parts);
    text[len] = '\0';
    char frac[32];
    std::snprintf(frac, sizeof frac, ".%lld", static_cast<long long>(_nsec));
    return tk_string(text) + frac;
}
