#include "util/error.h"

CError::CError(const tk_string& message, subsystem_t subsystem, unsigned level, severity_t severity)
    : std::runtime_error(message), _subsystem(subsystem), _level(level), _severity(severity) {}

void CError::log(const char* function) const {
    if (_reported)
        return;
    _reported = true;
    if (!log_enabled(_subsystem, _level))
        return;
    // "%s": the message is the user's text (paths, file contents), never a format.
    if (_severity == severity_t::warning)
        thread_log().warn(_level, function, "%s", what());
    else
        thread_log().err(_level, function, "%s", what());
}
