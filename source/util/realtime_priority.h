#pragma once
// A POSIX scheduling policy and priority, parsed from their command-line texts.
#include "toolkit/tk_string.h"

#include <cstdint>

class CRealtimePriority {
public:
    // "normal", "batch", "fifo" or "rr" (exactly); anything else throws CError.
    static int32_t str_to_policy(const tk_string& text);

    CRealtimePriority(int32_t policy, int32_t priority) : _policy(policy), _priority(priority) {}
    // Throws CError for an unknown policy or a priority that is not wholly a number
    // within the policy's range.
    CRealtimePriority(const tk_string& policy, const tk_string& priority);

    int32_t policy() const { return _policy; }
    int32_t priority() const { return _priority; }

private:
    int32_t _policy;
    int32_t _priority;
};
