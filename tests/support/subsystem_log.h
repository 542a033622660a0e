#pragma once
// Logging levels and captured log text for tests.
#include "support/stderr_capture.h"
#include "util/log.h"

#include <string>

// One subsystem's level for a scope.
class CScopedVerbosity {
public:
    CScopedVerbosity(subsystem_t subsystem, int32_t level)
        : _subsystem(subsystem), _saved(_svr_verb_array[subsystem]) {
        _svr_verb_array[subsystem] = level;
    }
    ~CScopedVerbosity() { _svr_verb_array[_subsystem] = _saved; }
    CScopedVerbosity(const CScopedVerbosity&) = delete;
    CScopedVerbosity& operator=(const CScopedVerbosity&) = delete;

private:
    subsystem_t _subsystem;
    int32_t _saved;
};

// What one subsystem (and any other whose level the test raised) writes while the object
// lives. One at a time: captures do not nest.
class CSubsystemLog {
public:
    CSubsystemLog(subsystem_t subsystem, int32_t level) : _level(subsystem, level) {}

    // Everything written so far; capturing ends.
    std::string text() { return _capture.text(); }

private:
    CScopedVerbosity _level;
    CStderrCapture _capture;
};

inline size_t count_of(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t pos = text.find(part); pos != std::string::npos; pos = text.find(part, pos + 1))
        ++n;
    return n;
}
