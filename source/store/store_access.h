#pragma once
// The I/O thread's way to the store, for requests: its own connection while the store is free,
// one commit for the writes of a loop turn, and the worker (CStoreWorker) when the store is
// held by another process.
//
// Reads are made at once (read_now). When another process holds the store they answer
// "busy", and the requester hands the read to submit(), which sends it to the worker.
//
// Writes go through submit() and are never made within the call. The writes that arrive in one
// turn of the event loop (the requests whose bytes came in the same wake-up) are committed
// together when the handlers ready in that turn have run: one transaction, in arrival order,
// each write answered after the commit. A store held by another process sends the whole group
// to the worker. While writes wait there, later writes queue behind them, so that writes reach
// the store in the order they came.
//
// Every job sent to the worker gets the requester's time-out, kept by a timer on this thread;
// the job's done() says TIMED_OUT when the timer won (see CStoreJob for why a write answered so
// is never made). done() always runs on this thread, and never within a call here.
#include "cds/cds_handle.h"
#include "store/store_job.h"
#include "store/store_worker.h"

#include <boost/asio/io_context.hpp>

#include <memory>
#include <vector>

class CStoreAccess {
public:
    CStoreAccess(CCdsHandle& cds, CStoreWorker& worker, boost::asio::io_context& io);
    CStoreAccess(const CStoreAccess&) = delete;
    CStoreAccess& operator=(const CStoreAccess&) = delete;

    // Reads ids on this thread's connection, pointing out[i] at each leaf (valid until the
    // next call here): 0, toolkit::CCds::busy when another process holds the store, or another
    // code when the store failed.
    int read_now(const toolkit::leaf_id_t* ids, size_t n, const toolkit::CLeafValue** out) {
        _worker.note_activity();
        return _cds.read(ids, n, out, false);
    }
    // Carries out job (a READ that found the store busy, or any WRITE) later; timeout_ms bounds
    // the wait for the worker (0: none).
    void submit(const std::shared_ptr<CStoreJob>& job, unsigned timeout_ms);

private:
    void flush();
    void to_worker(const std::shared_ptr<CStoreJob>& job, unsigned timeout_ms);
    void finish(const std::shared_ptr<CStoreJob>& job, CStoreJob::outcome_t outcome);

    CCdsHandle& _cds;
    CStoreWorker& _worker;
    boost::asio::io_context& _io;
    // The writes of this turn, with their time-outs, and the parts of their transaction.
    std::vector<std::shared_ptr<CStoreJob>> _batch;
    std::vector<unsigned> _batch_timeouts;
    std::vector<toolkit::CWritePart> _parts;
    bool _flush_posted = false;
};
