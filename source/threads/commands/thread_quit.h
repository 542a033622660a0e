#pragma once
// Ends the worker loop that executes it.
#include "threads/commands/thread_command.h"

class CThreadQuit : public CThreadCommand {
public:
    void execute(CThreadBase*) override { throw worker_quit(); }
};
