#include "store/store_access.h"

#include "cds/cds_handle.h"
#include "store/store_worker.h"
#include "util/log.h"

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <cassert>

CStoreAccess::CStoreAccess(CCdsHandle& cds, CStoreWorker& worker, boost::asio::io_context& io)
    : _cds(cds), _worker(worker), _io(io) {}

void CStoreAccess::submit(const std::shared_ptr<CStoreJob>& job, unsigned timeout_ms) {
    assert(job && job->state() == CStoreJob::PENDING);
    if (job->kind == CStoreJob::READ || _worker.queued_writes() != 0) {
        to_worker(job, timeout_ms);
        return;
    }
    _batch.push_back(job);
    _batch_timeouts.push_back(timeout_ms);
    if (!_flush_posted) {
        // Posted behind the handlers that are ready now: the requests of this turn.
        _flush_posted = true;
        boost::asio::post(_io, [this] { flush(); });
    }
}

void CStoreAccess::flush() {
    _flush_posted = false;
    _worker.note_activity();
    _parts.clear();
    for (const auto& job : _batch) {
        job->statuses.assign(job->ids.size(), API_STATUS_NONE);
        _parts.push_back(
            {job->ids.data(), job->values.data(), job->ids.size(), job->statuses.data()});
    }
    const int rc = _cds.write(_parts.data(), _parts.size(), false);
    std::vector<std::shared_ptr<CStoreJob>> batch;
    batch.swap(_batch);
    std::vector<unsigned> timeouts;
    timeouts.swap(_batch_timeouts);
    if (rc == toolkit::CCds::busy) {
        LOG_DEBUG(SS_FUNCTION_CODES, 4, "Store busy; %zu writes go to the store worker",
                  batch.size());
        for (size_t i = 0; i < batch.size(); ++i)
            to_worker(batch[i], timeouts[i]);
    } else {
        if (rc == 0)
            _worker.note_commit(_cds.wal_frames());
        else
            LOG_WARN(SS_FUNCTION_CODES, 1, "Writing the store failed: %s", _cds.error().c_str());
        for (const auto& job : batch)
            finish(job, rc == 0 ? CStoreJob::OK : CStoreJob::FAILED);
    }
    // Give the vectors their capacity back for the next turn.
    batch.clear();
    timeouts.clear();
    if (_batch.empty()) {
        _batch.swap(batch);
        _batch_timeouts.swap(timeouts);
    }
}

void CStoreAccess::finish(const std::shared_ptr<CStoreJob>& job, CStoreJob::outcome_t outcome) {
    // A job whose requester went away while it waited answers nobody.
    if (!job->leave_pending(CStoreJob::CLAIMED))
        return;
    job->outcome = outcome;
    if (job->done)
        job->done();
}

void CStoreAccess::to_worker(const std::shared_ptr<CStoreJob>& job, unsigned timeout_ms) {
    auto requester = std::make_shared<std::function<void()>>(std::move(job->done));
    std::shared_ptr<boost::asio::steady_timer> timer;
    if (timeout_ms != 0) {
        timer = std::make_shared<boost::asio::steady_timer>(_io);
        timer->expires_after(std::chrono::milliseconds(timeout_ms));
        // The timer holds the job until it fires or is cancelled.
        timer->async_wait([job, requester](const boost::system::error_code& error) {
            if (error || !job->leave_pending(CStoreJob::EXPIRED))
                return;
            job->outcome = CStoreJob::TIMED_OUT;
            if (*requester)
                (*requester)();
        });
    }
    // The worker runs done() through the loop when it claimed the job: the time-out is then
    // cancelled and the requester told.
    job->done = [timer, requester] {
        if (timer)
            timer->cancel();
        if (*requester)
            (*requester)();
    };
    _worker.submit(job);
}
