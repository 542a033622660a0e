#include "io/watchdog_timer.h"

std::shared_ptr<CWatchdogTimer> CWatchdogTimer::create(CIoManager& manager, unsigned timeout_ms,
                                                       std::function<void()> ping) {
    std::shared_ptr<CWatchdogTimer> watchdog(
        new CWatchdogTimer(manager, timeout_ms, std::move(ping)));
    watchdog->start();
    return watchdog;
}

CWatchdogTimer::CWatchdogTimer(CIoManager& manager, unsigned timeout_ms, std::function<void()> ping)
    : CPeriodicActor(manager, std::chrono::microseconds(uint64_t(timeout_ms) * 1000u / 2u)),
      _ping(std::move(ping)) {}
