#include "io/watchdog_timer.h"

#include "io/io_timer.h"
#include "util/log.h"

std::shared_ptr<CWatchdogTimer> CWatchdogTimer::create(CIoManager& manager, unsigned timeout_ms,
                                                       std::function<void()> ping) {
    std::shared_ptr<CWatchdogTimer> watchdog(
        new CWatchdogTimer(manager, timeout_ms, std::move(ping)));
    watchdog->_timer->reset();
    return watchdog;
}

// The multiplication wraps for time-outs beyond 4294967 ms; such periods are as good as any.
CWatchdogTimer::CWatchdogTimer(CIoManager& manager, unsigned timeout_ms, std::function<void()> ping)
    : CIoActor(manager), _period(static_cast<uint32_t>(timeout_ms * 1000u) / 2u),
      _ping(std::move(ping)), _timer(CIoTimer::create(*this, _period)) {
    _timer->assign(this);
}

void CWatchdogTimer::timeout(const CIoTimer&) {
    LOG_STACK();
    _ping();
    _timer->reset(_period);
}

void CWatchdogTimer::close() {
    _timer->assign(nullptr);
    _timer->cancel();
}
