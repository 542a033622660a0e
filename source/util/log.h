#pragma once
// The logging gate: a message of level L in subsystem S is produced only when entry S of
// _svr_verb_array is at least L. The macros below evaluate their arguments only when the
// gate passes, so a message that is not printed costs one integer comparison.
//
// Every thread logs through its own toolkit::CSysLog, a thread_local one that is deleted when
// the thread ends; thread_log() creates one for a thread that has none yet.
#include "toolkit/sys_log.h"

#include <boost/optional.hpp>

#include <array>
#include <cstdint>
#include <initializer_list>

enum subsystem_t : unsigned {
    SS_DEFAULT = 0,
    SS_LIBCDS,
    SS_CDS_HANDLE,
    SS_SERIAL_IO,
    SS_TCP_IO,
    SS_IO_SYSTEM,
    SS_SETTINGS,
    SS_CONFIG,
    SS_MAPPING,
    SS_MAPLIST,
    SS_PROTOCOL,
    SS_SERIAL_PROTOCOL,
    SS_TCP_PROTOCOL,
    SS_FUNCTION_CODES,
    SS_CDS_THREAD,
    SS_COUNT
};

// Optional per-subsystem levels as given on a command line, indexed by subsystem_t.
using subsystem_levels_t = std::array<boost::optional<int32_t>, SS_COUNT>;

// Written once during start-up, before any worker thread exists; read without locks.
extern int32_t _svr_verb_array[SS_COUNT];

toolkit::CSysLog& thread_log();
// A new logger for a thread named `name`, sending to syslog unless start-up switched it off.
toolkit::CSysLog* make_thread_log(const char* name);
// Installs log as the calling thread's logger (deleting a different previous one).
void install_thread_log(toolkit::CSysLog* log);

inline bool log_enabled(unsigned subsystem, unsigned level) {
    return _svr_verb_array[subsystem] >= static_cast<int32_t>(level);
}

// Start-up set-up of the levels: the calling thread's logger first takes `overall`; every
// subsystem given in `levels` keeps its level and all others take the default level, which
// is `main_level` when given, else `overall`. Then the logger gets its options (the syslog
// switch) and the default level as its own. Returns the default level.
int32_t setup_verbosity(int32_t overall, const subsystem_levels_t& levels,
                        const boost::optional<int32_t>& main_level, bool use_syslog);

#define MB_LOG_CALL(method, subsystem, level, function, ...)                                       \
    do {                                                                                           \
        if (::log_enabled((subsystem), (level)))                                                   \
            ::thread_log().method((level), (function), __VA_ARGS__);                               \
    } while (0)

// Errors, warnings and narration carry the caller's function name; debugging lines do not.
#define LOG_ERR(subsystem, level, ...)                                                             \
    MB_LOG_CALL(err, subsystem, level, __PRETTY_FUNCTION__, __VA_ARGS__)
#define LOG_WARN(subsystem, level, ...)                                                            \
    MB_LOG_CALL(warn, subsystem, level, __PRETTY_FUNCTION__, __VA_ARGS__)
#define LOG_INFO(subsystem, level, ...)                                                            \
    MB_LOG_CALL(info, subsystem, level, __PRETTY_FUNCTION__, __VA_ARGS__)
#define LOG_DEBUG(subsystem, level, ...) MB_LOG_CALL(debug, subsystem, level, nullptr, __VA_ARGS__)
#define LOG_DUMP(subsystem, level, data, len, title)                                               \
    do {                                                                                           \
        if (::log_enabled((subsystem), (level)))                                                   \
            ::thread_log().dbg_dump((level), (data), (len), (title));                              \
    } while (0)

// Messages tied to no subsystem, gated by the thread logger's own level.
#define LOG_THREAD(method, level, ...)                                                             \
    do {                                                                                           \
        if (::thread_log()._verbosity >= static_cast<int32_t>(level))                              \
            ::thread_log().method((level), __PRETTY_FUNCTION__, __VA_ARGS__);                      \
    } while (0)

// Function entry and exit tracing, two blanks of indentation per nesting level. Costs one
// comparison per scope unless some thread may trace (a level above 9).
class CLogStack {
public:
    explicit CLogStack(const char* function) : _function(function) {
        if (_max_verbosity > 9)
            push();
    }
    ~CLogStack() {
        if (_max_verbosity > 9)
            pop();
    }
    CLogStack(const CLogStack&) = delete;
    CLogStack& operator=(const CLogStack&) = delete;

    // The overall level raised to every per-thread level that is set.
    static void cache_max_verbosity(int32_t overall,
                                    std::initializer_list<boost::optional<int32_t>> per_thread);
    static uint32_t _max_verbosity;

private:
    void push();
    void pop();
    const char* _function;
};

#define LOG_STACK() CLogStack _log_stack_scope(__PRETTY_FUNCTION__)
