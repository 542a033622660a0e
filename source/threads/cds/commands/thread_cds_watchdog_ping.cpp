#include "threads/cds/commands/thread_cds_watchdog_ping.h"

#include "cds/cds_handle.h"
#include "threads/cds/cds_thread.h"
#include "util/cast.h"
#include "util/log.h"
#include "util/systemd_notify.h"

CThreadCdsWatchdogPing::CThreadCdsWatchdogPing(bool store, const CSystemdNotify* systemd)
    : _store(store), _systemd(systemd) {
    LOG_DEBUG(SS_CDS_THREAD, 2, "Creating WatchdogPing cmd");
}

void CThreadCdsWatchdogPing::execute(CThreadBase* thread) {
    if (_store)
        poly_cast<CCdsThread*>(thread)->handle().watchdog_ping();
    if (_systemd)
        _systemd->notify("WATCHDOG=1");
}
