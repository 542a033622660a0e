#pragma once
// The system's error exception: a failure the code that finds it cannot get past (start-up,
// a mapping file, a failing store), with the line that tells the user why.
//
// The throw site logs nothing: the message travels with the exception and is logged once,
// by the handler, the catch that decides what happens next, with LOG_CAUGHT. The error keeps
// how the line is logged (error or warning, subsystem, level), so that it shows at the same
// verbosity and reads the same whoever catches it; only the function it names is the
// handler's.
//
// A handler that tells the user and then passes the failure on (rethrows, or throws an error
// of its own) passes it on reported, so that the next handler, which calls LOG_CAUGHT as
// every handler does, does not tell them twice.
//
// Requests never throw it: the request path reports by status.
#include "toolkit/tk_string.h"
#include "util/log.h"

#include <stdexcept>

class CError : public std::runtime_error {
public:
    enum class severity_t { error, warning };

    // message: the line the user sees (the option parser's may span lines).
    explicit CError(const tk_string& message, subsystem_t subsystem = SS_DEFAULT,
                    unsigned level = 0, severity_t severity = severity_t::error);

    subsystem_t subsystem() const { return _subsystem; }
    unsigned level() const { return _level; }
    severity_t severity() const { return _severity; }

    // Whether the user has been told, by log() or by a handler's own way (mark_reported()).
    bool reported() const { return _reported; }
    // For a handler that has told the user another way before it passes the error on: the
    // option parser prints on stderr, the registry logs each broken file as it goes.
    void mark_reported() const { _reported = true; }
    // Logs the message as function's line, gated as LOG_ERR gates (nothing when the
    // subsystem's level is below the error's), and marks it reported; an error reported
    // already is not logged again.
    void log(const char* function) const;

private:
    subsystem_t _subsystem;
    unsigned _level;
    severity_t _severity;
    // Handlers catch by const reference, and a rethrow keeps the object: the mark travels.
    mutable bool _reported = false;
};

// Logs a caught error as the caller's line, unless the user has been told already.
#define LOG_CAUGHT(error) (error).log(__PRETTY_FUNCTION__)

// For a handler that gives up with an error of its own, logged as the caller's line as it is
// thrown: `throw LOGGED(init_err("Couldn't connect to CDS"));`.
template <class E> const E& logged_error(const E& error, const char* function) {
    error.log(function);
    return error;
}
#define LOGGED(error) ::logged_error((error), __PRETTY_FUNCTION__)
