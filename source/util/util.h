#pragma once
// Process-level services used at start-up and by worker threads.
#include "toolkit/tk_string.h"
#include "util/error.h"

class CRealtimePriority;

class CUtil {
public:
    struct no_such_user : CError {
        using CError::CError;
    };

    // Switches to the user named (or numbered) by name. An unknown name that is not a
    // non-negative number throws no_such_user; a refused setuid throws CError. Either says
    // "Couldn't set UID": the caller decides whether the server goes on without.
    static void set_uid(const tk_string& name);
    // Failures only log a warning.
    static void set_process_prio(int prio);
    static void set_thread_prio(const CRealtimePriority& prio);
    // Blocks (or unblocks) SIGSEGV, SIGILL and SIGFPE for the calling thread.
    static void alter_signal_mask(bool block);
};
