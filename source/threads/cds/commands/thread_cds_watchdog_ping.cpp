#include "threads/cds/commands/thread_cds_watchdog_ping.h"

#include "cds/cds_handle.h"
#include "threads/cds/cds_thread.h"
#include "util/cast.h"
#include "util/log.h"

CThreadCdsWatchdogPing::CThreadCdsWatchdogPing() {
    LOG_DEBUG(SS_CDS_THREAD, 2, "Creating WatchdogPing cmd");
}

void CThreadCdsWatchdogPing::execute(CThreadBase* thread) {
    poly_cast<CCdsThread*>(thread)->handle().watchdog_ping();
}
