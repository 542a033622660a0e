#pragma once
// Feeds the watchdogs from the CDS thread, so that a stalled CDS thread starves them: the
// store's (when the server registered with it) and systemd's (when it asked for one).
#include "threads/commands/thread_command.h"

class CSystemdNotify;

class CThreadCdsWatchdogPing : public CThreadCommand {
public:
    // store: ping the store's watchdog; systemd, when not null, is told WATCHDOG=1.
    explicit CThreadCdsWatchdogPing(bool store = true, const CSystemdNotify* systemd = nullptr);
    void execute(CThreadBase* thread) override;

private:
    bool _store;
    const CSystemdNotify* _systemd;
};
