#pragma once
// One request's read or write of store leaves, on its way from the I/O thread to the store and
// back. The I/O thread fills it, CStoreAccess carries it out (on the I/O thread's connection,
// or on the worker when the store is busy), and done() runs on the I/O thread with the
// outcome. Held by shared pointers: a requester that goes away abandons its job, and whoever
// holds it last frees it.
//
// The state is shared with the worker thread. A job is PENDING until it is carried out. The
// worker claims a pending write just before its transaction commits (PENDING -> CLAIMED); the
// I/O thread's time-out expires a pending job (PENDING -> EXPIRED) and its requester's going
// away abandons it (PENDING -> ABANDONED). Only one of these wins, so a write answered with
// exception 11 is never made, and one that is claimed is answered with its real outcome.
#include "toolkit/cds.h"
#include "toolkit/leaf_table.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

class CStoreJob {
public:
    enum kind_t : uint8_t { READ, WRITE };
    enum state_t : uint8_t { PENDING, CLAIMED, EXPIRED, ABANDONED };
    enum outcome_t : uint8_t { OK, FAILED, TIMED_OUT };

    kind_t kind = READ;
    std::vector<toolkit::leaf_id_t> ids;
    // WRITE: a value per id, and after it a status per id.
    std::vector<toolkit::CElement> values;
    std::vector<api_status_t> statuses;
    // READ done on the worker: copies of the leaves, in the order of ids (a read on the I/O
    // thread's connection needs none).
    std::vector<toolkit::CLeafValue> read;
    outcome_t outcome = OK;
    // Runs once on the I/O thread when the job is over, unless it was abandoned.
    std::function<void()> done;

    // Makes the job ready to be carried out again (its vectors keep their capacity).
    void reset(kind_t k) {
        kind = k;
        ids.clear();
        values.clear();
        statuses.clear();
        read.clear();
        outcome = OK;
        _state.store(PENDING);
    }
    state_t state() const { return static_cast<state_t>(_state.load()); }
    // PENDING -> to; false when another transition came first.
    bool leave_pending(state_t to) {
        uint8_t expected = PENDING;
        return _state.compare_exchange_strong(expected, to);
    }
    // Back to PENDING from CLAIMED (a transaction that claimed it was rolled back).
    void unclaim() { _state.store(PENDING); }

private:
    std::atomic<uint8_t> _state{PENDING};
};
