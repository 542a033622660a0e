#pragma once
// Helpers of the mapping suite: nodes written inline, sample files, captured log lines and
// checks that a call aborts.
#include "support/stderr_capture.h"
#include "util/log.h"

#include "toolkit/eds.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>

inline toolkit::node_map_t
make_node(std::initializer_list<std::pair<const char*, const char*>> entries) {
    toolkit::node_map_t node;
    for (const auto& e : entries)
        node.emplace(e.first, e.second);
    return node;
}

inline std::string sample_eds(const std::string& name) {
    return std::string(MB_SOURCE_DIR) + "/tests/mapping/eds/" + name;
}

// What the mapping code logs up to `level` while the object lives.
class CMappingLog {
public:
    explicit CMappingLog(int32_t level = 2) : _saved(_svr_verb_array[SS_MAPPING]) {
        _svr_verb_array[SS_MAPPING] = level;
    }
    ~CMappingLog() { _svr_verb_array[SS_MAPPING] = _saved; }
    std::string text() { return _capture.text(); }

private:
    int32_t _saved;
    CStderrCapture _capture;
};

// Runs fn in a child process; true when the child ends by SIGABRT (a failed assertion).
inline bool aborts(const std::function<void()>& fn) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        // The test framework would catch the signal and carry on in the child.
        ::signal(SIGABRT, SIG_DFL);
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, STDERR_FILENO);
        try {
            fn();
        } catch (...) {
        }
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
}

// Local time is UTC while it lives, so that times written back read as they were sent.
class CUtcZone {
public:
    CUtcZone() {
        const char* tz = std::getenv("TZ");
        _had = tz != nullptr;
        if (_had)
            _saved = tz;
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }
    ~CUtcZone() {
        if (_had)
            ::setenv("TZ", _saved.c_str(), 1);
        else
            ::unsetenv("TZ");
        ::tzset();
    }

private:
    bool _had;
    std::string _saved;
};
