#pragma once
// Feeds the store's watchdog from the CDS thread.
#include "threads/commands/thread_command.h"

class CThreadCdsWatchdogPing : public CThreadCommand {
public:
    CThreadCdsWatchdogPing();
    void execute(CThreadBase* thread) override;
};
