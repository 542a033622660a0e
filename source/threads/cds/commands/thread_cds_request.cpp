#include "threads/cds/commands/thread_cds_request.h"

#include "cds/cds_handle.h"
#include "threads/cds/cds_thread.h"
#include "toolkit/cds.h"
#include "util/cast.h"

#include <chrono>
#include <thread>

CThreadCdsRequest::CThreadCdsRequest(const std::weak_ptr<CThreadResponseHandler>& requester,
                                     std::vector<toolkit::leaf_id_t> ids)
    : CThreadCommand(requester), _write(false), _ids(std::move(ids)) {}

CThreadCdsRequest::CThreadCdsRequest(const std::weak_ptr<CThreadResponseHandler>& requester,
                                     std::vector<toolkit::leaf_id_t> ids,
                                     std::vector<toolkit::CElement> values, unsigned* queued)
    : CThreadCommand(requester), _write(true), _queued(queued), _ids(std::move(ids)),
      _values(std::move(values)) {
    if (_queued)
        ++*_queued;
}

CThreadCdsRequest::~CThreadCdsRequest() {
    if (_queued)
        --*_queued;
}

void CThreadCdsRequest::write(CCdsHandle& cds) {
    // While another writer holds the store, try again every millisecond, for as long as the
    // store's own wait would last, and stop as soon as the requester gave up: a write that
    // was answered with a time-out is never made afterwards.
    using clock = std::chrono::steady_clock;
    const clock::time_point give_up =
        clock::now() + std::chrono::milliseconds(toolkit::CCds::busy_wait_ms);
    _statuses.assign(_ids.size(), API_STATUS_NONE);
    for (;;) {
        const int rc = cds.write(_ids.data(), _values.data(), _ids.size(), _statuses.data(), false);
        if (rc == 0)
            return;
        if (rc != toolkit::CCds::busy || !has_handler() || clock::now() >= give_up) {
            set_failed(true);
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void CThreadCdsRequest::execute(CThreadBase* thread) {
    if (!has_handler())
        return;
    CCdsHandle& cds = poly_cast<CCdsThread*>(thread)->handle();
    if (_write) {
        write(cds);
        return;
    }
    // The entries point into the connection's cache, which the next command may change:
    // the requester gets copies.
    std::vector<const toolkit::CLeafValue*> found(_ids.size(), nullptr);
    if (cds.read(_ids.data(), _ids.size(), found.data(), true) != 0) {
        set_failed(true);
        return;
    }
    _read.reserve(found.size());
    for (const toolkit::CLeafValue* v : found)
        _read.push_back(*v);
}
