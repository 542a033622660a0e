#pragma once
// Per-thread logger of the platform layer.
//
// Each thread owns one CSysLog. Every call prints exactly one line to stderr (time with
// milliseconds, process identity, thread name, level, function name when given, text) and,
// unless switched off, passes a copy to syslog(3). The logger never filters by level: the
// caller decides whether a message is wanted. Lines are written with a single write(2) so
// that concurrent threads do not interleave within a line.
#include "toolkit/tk_string.h"

#include <cstddef>
#include <cstdint>

namespace toolkit {

class CSysLog {
public:
    // ident names the thread (null: the main thread). level seeds _verbosity. The flags
    // say whether to print to stdout, to stderr and to syslog. user is kept for the caller.
    CSysLog(const char* ident, int level, bool to_stdout, bool to_stderr, bool to_syslog,
            void* user = nullptr);

    void err(unsigned level, const char* function, const char* fmt, ...)
        __attribute__((format(printf, 4, 5)));
    void warn(unsigned level, const char* function, const char* fmt, ...)
        __attribute__((format(printf, 4, 5)));
    void info(unsigned level, const char* function, const char* fmt, ...)
        __attribute__((format(printf, 4, 5)));
    void debug(unsigned level, const char* function, const char* fmt, ...)
        __attribute__((format(printf, 4, 5)));
    // Hexadecimal dump of len bytes, 16 to a line, under an optional title.
    void dbg_dump(unsigned level, const void* data, size_t len, const char* title);

    void update_options(bool to_stdout, bool to_stderr, bool to_syslog, void* user);

    // How many errors and warnings this logger has written: a configuration check reads
    // them to learn whether anything it set off complained, wherever the message came from.
    uint32_t errors() const { return _errors; }
    uint32_t warnings() const { return _warnings; }

    // Changes the process identity used in every line and for syslog(3).
    static void set_ident(const char* ident);
    static tk_string _ident;

    // Used directly by the server: this thread's own level and its call-nesting depth.
    int32_t _verbosity;
    uint32_t _depth = 0;

private:
    enum class kind_t { error, warning, info, debug };
    void vlog(kind_t kind, unsigned level, const char* function, const char* fmt, va_list ap)
        __attribute__((format(printf, 5, 0)));
    void emit(kind_t kind, const char* text);

    tk_string _thread;
    bool _stdout;
    bool _stderr;
    bool _syslog;
    void* _user;
    uint32_t _errors = 0;
    uint32_t _warnings = 0;
};

} // namespace toolkit
