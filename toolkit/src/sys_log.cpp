#include "toolkit/sys_log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

namespace toolkit {

tk_string CSysLog::_ident = "modbus_server";

namespace {

// openlog(3) keeps the pointer it is given, so the identity lives in static storage.
char g_syslog_ident[64] = "modbus_server";

const char* kind_name(int kind) {
    static const char* const names[] = {"ERROR", "WARN", "INFO", "DEBUG"};
    return names[kind];
}

int kind_priority(int kind) {
    static const int prios[] = {LOG_ERR, LOG_WARNING, LOG_INFO, LOG_DEBUG};
    return prios[kind];
}

void write_all(int fd, const char* text, size_t len) {
    while (len > 0) {
        ssize_t n = ::write(fd, text, len);
        if (n <= 0)
            return;
        text += n;
        len -= static_cast<size_t>(n);
    }
}

} // namespace

CSysLog::CSysLog(const char* ident, int level, bool to_stdout, bool to_stderr, bool to_syslog,
                 void* user)
    : _verbosity(level), _thread(ident ? ident : "main"), _stdout(to_stdout), _stderr(to_stderr),
      _syslog(to_syslog), _user(user) {}

void CSysLog::set_ident(const char* ident) {
    _ident = ident ? ident : "";
    std::snprintf(g_syslog_ident, sizeof g_syslog_ident, "%s", _ident.c_str());
    ::openlog(g_syslog_ident, LOG_PID, LOG_DAEMON);
}

void CSysLog::update_options(bool to_stdout, bool to_stderr, bool to_syslog, void* user) {
    _stdout = to_stdout;
    _stderr = to_stderr;
    _syslog = to_syslog;
    _user = user;
}

#define TK_SYSLOG_METHOD(name, kind)                                                               \
    void CSysLog::name(unsigned level, const char* function, const char* fmt, ...) {               \
        va_list ap;                                                                                \
        va_start(ap, fmt);                                                                         \
        vlog(kind, level, function, fmt, ap);                                                      \
        va_end(ap);                                                                                \
    }
TK_SYSLOG_METHOD(err, kind_t::error)
TK_SYSLOG_METHOD(warn, kind_t::warning)
TK_SYSLOG_METHOD(info, kind_t::info)
TK_SYSLOG_METHOD(debug, kind_t::debug)
#undef TK_SYSLOG_METHOD

namespace {

// "Class::function" out of a compiler's full signature ("static void Class::function(int)"):
// the qualified name before the parameter list, without the return type. Angle brackets
// are skipped whole, since template arguments hold blanks and parentheses of their own.
std::string short_name(const char* signature) {
    const char* start = signature;
    int depth = 0;
    for (const char* p = signature; *p; ++p) {
        if (*p == '<')
            ++depth;
        else if (*p == '>' && depth > 0)
            --depth;
        else if (depth == 0 && *p == ' ')
            start = p + 1;
        else if (depth == 0 && *p == '(' && p > start)
            return std::string(start, p);
    }
    return signature;
}

} // namespace

void CSysLog::vlog(kind_t kind, unsigned level, const char* function, const char* fmt, va_list ap) {
    if (kind == kind_t::error)
        ++_errors;
    else if (kind == kind_t::warning)
        ++_warnings;
    char text[4096];
    int n = 0;
    if (function)
        n = std::snprintf(text, sizeof text, "[%u] %s: ", level, short_name(function).c_str());
    else
        n = std::snprintf(text, sizeof text, "[%u] ", level);
    if (n < 0 || static_cast<size_t>(n) >= sizeof text)
        n = 0;
    std::vsnprintf(text + n, sizeof text - static_cast<size_t>(n), fmt, ap);
    emit(kind, text);
}

void CSysLog::dbg_dump(unsigned level, const void* data, size_t len, const char* title) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    char line[128];
    std::snprintf(line, sizeof line, "[%u] %s (%zu bytes)", level, title ? title : "dump", len);
    emit(kind_t::debug, line);
    for (size_t off = 0; off < len; off += 16) {
        int n = std::snprintf(line, sizeof line, "[%u]   %04zx:", level, off);
        for (size_t i = off; i < len && i < off + 16; ++i)
            n += std::snprintf(line + n, sizeof line - static_cast<size_t>(n), " %02x", bytes[i]);
        emit(kind_t::debug, line);
    }
}

void CSysLog::emit(kind_t kind, const char* text) {
    const int k = static_cast<int>(kind);
    if (_stdout || _stderr) {
        struct timeval tv;
        ::gettimeofday(&tv, nullptr);
        time_t secs = tv.tv_sec;
        struct tm tmv;
        ::localtime_r(&secs, &tmv);
        char stamp[32];
        std::strftime(stamp, sizeof stamp, "%F %T", &tmv);
        char line[4352];
        int n = std::snprintf(line, sizeof line, "%s.%03ld %s[%s] %s %s\n", stamp,
                              static_cast<long>(tv.tv_usec / 1000), _ident.c_str(), _thread.c_str(),
                              kind_name(k), text);
        size_t len = n < 0 ? 0 : std::min(static_cast<size_t>(n), sizeof line - 1);
        if (len > 0 && line[len - 1] != '\n')
            line[len - 1] = '\n';
        if (_stderr)
            write_all(STDERR_FILENO, line, len);
        if (_stdout)
            write_all(STDOUT_FILENO, line, len);
    }
    if (_syslog)
        ::syslog(kind_priority(k), "[%s] %s", _thread.c_str(), text);
}

} // namespace toolkit
