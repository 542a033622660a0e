#include "io/watchdog_timer.h"

#include "io/io_timer.h"
#include "server_core/server_core.h"
#include "threads/cds/commands/thread_cds_watchdog_ping.h"
#include "util/log.h"

std::shared_ptr<CWatchdogTimer> CWatchdogTimer::create(CIoManager& manager, unsigned timeout_ms) {
    std::shared_ptr<CWatchdogTimer> watchdog(new CWatchdogTimer(manager, timeout_ms));
    watchdog->_timer->reset();
    return watchdog;
}

// The multiplication wraps for time-outs beyond 4294967 ms; such periods are as good as any.
CWatchdogTimer::CWatchdogTimer(CIoManager& manager, unsigned timeout_ms)
    : CIoActor(manager), _period(static_cast<uint32_t>(timeout_ms * 1000u) / 2u),
      _timer(CIoTimer::create(*this, _period)) {
    _timer->assign(this);
}

void CWatchdogTimer::timeout(const CIoTimer&) {
    LOG_STACK();
    get_server_core().add_cds_cmd(std::make_unique<CThreadCdsWatchdogPing>(), true);
    _timer->reset(_period);
}

void CWatchdogTimer::close() {
    _timer->assign(nullptr);
    _timer->cancel();
}
