#include "store/store_worker.h"

#include "cds/cds_handle.h"
#include "util/error.h"
#include "util/log.h"

#include <boost/asio/post.hpp>

#include <cassert>
#include <cstring>
#include <cxxabi.h>
#include <pthread.h>

CStoreWorker::CStoreWorker(std::unique_ptr<CCdsHandle> cds, boost::asio::io_context& io,
                           const options_t& options)
    : _cds(std::move(cds)), _io(io), _options(options) {
    assert(_cds);
    _activity_changed_ms = now_ms();
    // The default stack is 8 MiB of address space, a lot of a 32-bit device's; SQLite and the
    // logger need a small part of the one given here.
    pthread_attr_t attr;
    ::pthread_attr_init(&attr);
    ::pthread_attr_setstacksize(&attr, k_stack_size);
    const int rc = ::pthread_create(&_thread, &attr, &CStoreWorker::entry, this);
    ::pthread_attr_destroy(&attr);
    if (rc != 0)
        throw CError("CStoreWorker: cannot start the '" + _options.name +
                     "' thread: " + std::strerror(rc));
    _running = true;
}

void* CStoreWorker::entry(void* self) {
    CStoreWorker& worker = *static_cast<CStoreWorker*>(self);
    // Runs also when a cancellation unwinds the thread.
    struct CEndSignal {
        CStoreWorker& worker;
        ~CEndSignal() {
            std::lock_guard<std::mutex> lock(worker._end_mutex);
            worker._ended = true;
            worker._end_cond.notify_all();
        }
    } signal{worker};
    worker.main();
    return nullptr;
}

CStoreWorker::~CStoreWorker() {
    stop();
}

int64_t CStoreWorker::now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void CStoreWorker::submit(const std::shared_ptr<CStoreJob>& job) {
    assert(job);
    if (job->kind == CStoreJob::WRITE)
        ++_queued_writes;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _queue.push_back(item_t{job, {}, {}});
    }
    _wake.notify_one();
}

void CStoreWorker::run(task_t task, task_done_t done, bool urgent) {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        (urgent ? _urgent : _queue).push_back(item_t{nullptr, std::move(task), std::move(done)});
    }
    _wake.notify_one();
}

void CStoreWorker::note_commit(int wal_frames) {
    _wal_frames.store(wal_frames, std::memory_order_relaxed);
    note_activity();
    // A WAL shorter than at the last checkpoint has started over.
    int copied = _checkpointed.load(std::memory_order_relaxed);
    if (wal_frames < copied) {
        copied = 0;
        _checkpointed.store(0, std::memory_order_relaxed);
    }
    if (_options.checkpoint_frames == 0 || wal_frames < 0 ||
        static_cast<unsigned>(wal_frames - copied) < _options.checkpoint_frames)
        return;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        if (_checkpoint_now)
            return;
        _checkpoint_now = true;
    }
    _wake.notify_one();
}

void CStoreWorker::main() {
    install_thread_log(make_thread_log(_options.name.c_str()));
    thread_log()._verbosity = _options.verbosity;
    std::deque<item_t> batch;
    try {
        while (next(batch))
            execute(batch);
    } catch (const abi::__forced_unwind&) {
        throw; // cancelled by stop(): the unwinding must go on
    } catch (const std::exception& e) {
        if (_options.fatal)
            _options.fatal(std::string("the store worker failed: ") + e.what());
    } catch (...) {
        if (_options.fatal)
            _options.fatal("the store worker failed");
    }
}

bool CStoreWorker::next(std::deque<item_t>& batch) {
    batch.clear();
    std::unique_lock<std::mutex> lock(_mutex);
    for (;;) {
        if (_quit)
            return false;
        if (!_urgent.empty()) {
            batch.push_back(std::move(_urgent.front()));
            _urgent.pop_front();
            return true;
        }
        if (!_queue.empty()) {
            batch.push_back(std::move(_queue.front()));
            _queue.pop_front();
            // The writes waiting right behind a write share its transaction.
            const auto is_write = [](const item_t& i) {
                return i.job && i.job->kind == CStoreJob::WRITE;
            };
            while (is_write(batch.front()) && !_queue.empty() && is_write(_queue.front())) {
                batch.push_back(std::move(_queue.front()));
                _queue.pop_front();
            }
            return true;
        }
        if (_checkpoint_now) {
            _checkpoint_now = false;
            lock.unlock();
            maybe_checkpoint(true);
            lock.lock();
            continue;
        }
        if (_wake.wait_for(lock, _options.idle) == std::cv_status::timeout) {
            lock.unlock();
            maybe_checkpoint(false);
            lock.lock();
        }
    }
}

void CStoreWorker::execute(std::deque<item_t>& batch) {
    assert(!batch.empty());
    if (!batch.front().job) {
        execute_task(batch.front());
        return;
    }
    if (batch.front().job->kind == CStoreJob::WRITE) {
        const unsigned n = static_cast<unsigned>(batch.size());
        write(batch);
        // Carried out or dropped: later writes need not queue behind these any more.
        _queued_writes -= n;
        return;
    }
    CStoreJob& job = *batch.front().job;
    try {
        read(job);
    } catch (const std::exception& e) {
        LOG_THREAD(err, 0, "A store read failed: %s", e.what());
        job.outcome = CStoreJob::FAILED;
    }
    if (job.leave_pending(CStoreJob::CLAIMED))
        complete(batch.front().job);
}

void CStoreWorker::execute_task(item_t& item) {
    bool ok = false;
    try {
        ok = item.task(*_cds);
    } catch (const std::exception& e) {
        LOG_THREAD(err, 0, "A store task failed: %s", e.what());
    }
    if (item.done)
        boost::asio::post(_io, [done = std::move(item.done), ok] { done(ok); });
}

void CStoreWorker::read(CStoreJob& job) {
    if (job.state() != CStoreJob::PENDING)
        return; // timed out or abandoned while it waited: nobody wants it
    std::vector<const toolkit::CLeafValue*> found(job.ids.size(), nullptr);
    if (_cds->read(job.ids.data(), job.ids.size(), found.data(), true) != 0) {
        LOG_THREAD(warn, 1, "Reading the store failed: %s", _cds->error().c_str());
        job.outcome = CStoreJob::FAILED;
        return;
    }
    // The entries point into this connection's cache, which the next job may change: the
    // requester gets copies.
    job.read.clear();
    for (const toolkit::CLeafValue* v : found)
        job.read.push_back(*v);
    job.outcome = CStoreJob::OK;
}

void CStoreWorker::write(std::deque<item_t>& writes) {
    using clock = std::chrono::steady_clock;
    const clock::time_point give_up = clock::now() + _options.busy_wait;
    std::vector<std::shared_ptr<CStoreJob>> jobs;
    for (item_t& item : writes)
        jobs.push_back(std::move(item.job));
    std::vector<toolkit::CWritePart> parts;
    std::vector<CStoreJob*> in_parts;
    for (;;) {
        parts.clear();
        in_parts.clear();
        for (const auto& job : jobs) {
            if (job->state() != CStoreJob::PENDING)
                continue;
            job->statuses.assign(job->ids.size(), API_STATUS_NONE);
            parts.push_back(
                {job->ids.data(), job->values.data(), job->ids.size(), job->statuses.data()});
            in_parts.push_back(job.get());
        }
        if (parts.empty())
            return;
        // Just before the commit: each write is claimed, or it expired meanwhile and the
        // transaction is rolled back to be made without it.
        const auto claim_all = [&in_parts] {
            for (size_t i = 0; i < in_parts.size(); ++i) {
                if (!in_parts[i]->leave_pending(CStoreJob::CLAIMED)) {
                    for (size_t k = 0; k < i; ++k)
                        in_parts[k]->unclaim();
                    return false;
                }
            }
            return true;
        };
        int rc = toolkit::CCds::busy;
        try {
            rc = _cds->write(parts.data(), parts.size(), true, claim_all);
        } catch (const std::exception& e) {
            LOG_THREAD(err, 0, "A store write failed: %s", e.what());
            rc = -1;
        }
        if (rc == toolkit::CCds::cancelled)
            continue;
        if (rc == 0) {
            note_commit(_cds->wal_frames());
            for (const auto& job : jobs) {
                if (job->state() != CStoreJob::CLAIMED)
                    continue;
                job->outcome = CStoreJob::OK;
                complete(job);
            }
            return;
        }
        if (rc == toolkit::CCds::busy && clock::now() < give_up)
            continue;
        LOG_THREAD(warn, 1, "Writing the store failed: %s", _cds->error().c_str());
        for (const auto& job : jobs) {
            if (!job->leave_pending(CStoreJob::CLAIMED))
                continue;
            job->outcome = CStoreJob::FAILED;
            complete(job);
        }
        return;
    }
}

void CStoreWorker::complete(const std::shared_ptr<CStoreJob>& job) {
    boost::asio::post(_io, [job] {
        if (job->done)
            job->done();
    });
}

bool CStoreWorker::idle() {
    const uint32_t activity = _activity.load(std::memory_order_relaxed);
    const int64_t now = now_ms();
    if (activity != _activity_seen) {
        _activity_seen = activity;
        _activity_changed_ms = now;
        return false;
    }
    return now - _activity_changed_ms >= _options.idle.count();
}

void CStoreWorker::maybe_checkpoint(bool forced) {
    const int uncopied =
        _wal_frames.load(std::memory_order_relaxed) - _checkpointed.load(std::memory_order_relaxed);
    if (uncopied <= 0)
        return;
    if (!forced && !idle())
        return;
    // A passive checkpoint never holds a writer up, but the WAL only starts over once all of
    // it is copied, which a steady stream of writes never lets happen: at twice the size
    // limit the restart holds the I/O thread's writes off (they wait here meanwhile) until
    // the rest, which the passive ones left little of, is copied.
    const int frames = _wal_frames.load(std::memory_order_relaxed);
    const bool restart = forced && _options.checkpoint_frames != 0 &&
                         static_cast<unsigned>(frames) >= 2 * _options.checkpoint_frames;
    int left = 0;
    const int rc = _cds->checkpoint(left, restart);
    if (rc == toolkit::CCds::busy) {
        LOG_THREAD(debug, 4, "Checkpoint put off: the store is busy");
        return;
    }
    if (rc != 0) {
        LOG_THREAD(warn, 1, "Checkpointing the store failed: %s", _cds->error().c_str());
        return;
    }
    ++_checkpoints;
    LOG_THREAD(debug, 4, "Checkpointed the store (%s; %d frames left behind readers)",
               restart ? "restart" : "passive", left);
    // After a passive checkpoint the WAL keeps its length until it starts over, and the next
    // one is due when as much again has been written; a restart starts it over now.
    _checkpointed.store(restart ? 0 : frames - left, std::memory_order_relaxed);
    if (restart)
        _wal_frames.store(left, std::memory_order_relaxed);
}

void CStoreWorker::stop(std::chrono::seconds timeout) {
    if (!_running)
        return;
    assert(!::pthread_equal(_thread, ::pthread_self()));
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _quit = true;
    }
    _wake.notify_all();
    bool ended;
    {
        std::unique_lock<std::mutex> lock(_end_mutex);
        ended = _end_cond.wait_for(lock, timeout, [this] { return _ended; });
    }
    if (!ended) {
        LOG_THREAD(err, 1, "Timed out waiting for '%s' to exit! Forcing thread to exit...",
                   _options.name.c_str());
        ::pthread_cancel(_thread);
    }
    ::pthread_join(_thread, nullptr);
    _running = false;
    // Dropped here, on the caller's thread: their completions belong to its loop.
    std::lock_guard<std::mutex> lock(_mutex);
    _queue.clear();
    _urgent.clear();
}
