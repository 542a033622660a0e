#pragma once
// Pings the watchdogs at half their time-out.
#include "io/periodic_actor.h"

#include <functional>
#include <memory>

class CWatchdogTimer : public CPeriodicActor {
public:
    // timeout_ms: the watchdog's time-out; ping runs every half of it.
    static std::shared_ptr<CWatchdogTimer> create(CIoManager& manager, unsigned timeout_ms,
                                                  std::function<void()> ping);

private:
    CWatchdogTimer(CIoManager& manager, unsigned timeout_ms, std::function<void()> ping);
    void tick() override { _ping(); }

    std::function<void()> _ping;
};
