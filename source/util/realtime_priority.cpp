#include "util/realtime_priority.h"

#include "util/error.h"

#include <cerrno>
#include <cstdlib>
#include <sched.h>
#include <string>

int32_t CRealtimePriority::str_to_policy(const tk_string& text) {
    if (text == "normal")
        return SCHED_OTHER;
    if (text == "batch")
        return SCHED_BATCH;
    if (text == "fifo")
        return SCHED_FIFO;
    if (text == "rr")
        return SCHED_RR;
    throw CError("unknown scheduling policy '" + text + "'");
}

CRealtimePriority::CRealtimePriority(const tk_string& policy, const tk_string& priority)
    : _policy(str_to_policy(policy)), _priority(0) {
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(priority.c_str(), &end, 0);
    if (priority.empty() || *end != '\0' || errno == ERANGE ||
        value < ::sched_get_priority_min(_policy) || value > ::sched_get_priority_max(_policy))
        throw CError("priority '" + priority + "' is not a number from " +
                     std::to_string(::sched_get_priority_min(_policy)) + " to " +
                     std::to_string(::sched_get_priority_max(_policy)) + " for policy '" + policy +
                     "'");
    _priority = static_cast<int32_t>(value);
}
