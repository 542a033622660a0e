#pragma once
// Sets the executing thread's own logger level.
#include "threads/commands/thread_command.h"
#include "util/log.h"

#include <cstdint>

class CThreadSetVerbosity : public CThreadCommand {
public:
    explicit CThreadSetVerbosity(int32_t level) : _level(level) {}
    void execute(CThreadBase*) override { thread_log()._verbosity = _level; }
    int32_t level() const { return _level; }

private:
    int32_t _level;
};
