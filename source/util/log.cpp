#include "util/log.h"

int32_t _svr_verb_array[SS_COUNT] = {};
uint32_t CLogStack::_max_verbosity = 0;

namespace {
// Set once at start-up, before worker threads exist.
bool g_use_syslog = true;

// A plain pointer stays valid until the thread's very end, so a destructor that logs late
// still finds (or makes) a logger; the owner deletes it with the thread's other
// thread_local objects. Standard thread_local, so no compiled Boost library is needed.
thread_local toolkit::CSysLog* t_log = nullptr;

class CThreadLogOwner {
public:
    ~CThreadLogOwner() {
        delete t_log;
        t_log = nullptr;
    }
    void own(toolkit::CSysLog* log) {
        if (t_log != log)
            delete t_log;
        t_log = log;
    }
};
thread_local CThreadLogOwner t_log_owner;
} // namespace

toolkit::CSysLog* make_thread_log(const char* name) {
    return new toolkit::CSysLog(name, 0, false, true, g_use_syslog);
}

toolkit::CSysLog& thread_log() {
    if (!t_log)
        t_log_owner.own(make_thread_log(nullptr));
    return *t_log;
}

void install_thread_log(toolkit::CSysLog* log) {
    t_log_owner.own(log);
}

int32_t setup_verbosity(int32_t overall, const subsystem_levels_t& levels,
                        const boost::optional<int32_t>& main_level, bool use_syslog) {
    toolkit::CSysLog& log = thread_log();
    log._verbosity = overall;
    const int32_t fallback = main_level ? *main_level : overall;
    for (unsigned i = 0; i < SS_COUNT; ++i)
        _svr_verb_array[i] = levels[i] ? *levels[i] : fallback;
    g_use_syslog = use_syslog;
    log.update_options(false, true, use_syslog, nullptr);
    log._verbosity = fallback;
    return fallback;
}

void CLogStack::cache_max_verbosity(int32_t overall,
                                    std::initializer_list<boost::optional<int32_t>> per_thread) {
    int32_t max = overall;
    for (const auto& level : per_thread)
        if (level && *level > max)
            max = *level;
    _max_verbosity = max < 0 ? 0 : static_cast<uint32_t>(max);
}

void CLogStack::push() {
    toolkit::CSysLog& log = thread_log();
    if (log._verbosity > 9)
        log.debug(10, nullptr, "%*s: %s", static_cast<int>(2 * log._depth + 7), "[ENTER]",
                  _function);
    ++log._depth;
}

void CLogStack::pop() {
    toolkit::CSysLog& log = thread_log();
    if (log._depth > 0)
        --log._depth;
    if (log._verbosity > 9)
        log.debug(10, nullptr, "%*s: %s", static_cast<int>(2 * log._depth + 7), "[EXIT] ",
                  _function);
}
