#include "threads/cds/cds_thread.h"

#include "cds/cds_handle.h"
#include "util/log.h"

#include <cassert>

CCdsThread::CCdsThread(const boost::optional<CRealtimePriority>& priority,
                       const std::shared_ptr<CCdsHandle>& cds)
    : CThreadBase("cds", priority), _cds(cds) {
    LOG_THREAD(debug, 2, "Starting CDS thread");
}

// The worker must be gone before the handle it uses.
CCdsThread::~CCdsThread() {
    stop(5);
}

CCdsHandle& CCdsThread::handle() {
    assert(_cds);
    return *_cds;
}
