#include "modbus/handler/modbus_protocol_handler.h"

#include "store/store_access.h"
#include "util/log.h"

#include "toolkit/cds.h"

#include <cassert>

CModbusProtocolHandler::CModbusProtocolHandler(CStoreAccess& store,
                                               const CRequestRunner::context_t& context,
                                               unsigned timeout_ms)
    : _runner(context), _store(store), _timeout_ms(timeout_ms) {}

CModbusProtocolHandler::~CModbusProtocolHandler() {
    // A request still waiting for the store is not wanted any more.
    if (_job)
        _job->leave_pending(CStoreJob::ABANDONED);
}

CModbusProtocolHandler::outcome_t CModbusProtocolHandler::run(CModbusPdu& pdu,
                                                              const CRequestRunner::unit_t& unit,
                                                              uint8_t unit_id, bool broadcast) {
    return drive(_runner.start(pdu, unit, unit_id, broadcast));
}

CModbusProtocolHandler::outcome_t CModbusProtocolHandler::drive(CRequestRunner::step_t step) {
    for (;;) {
        switch (step) {
        case CRequestRunner::READ: {
            const std::vector<toolkit::leaf_id_t>& ids = _runner.reads();
            const toolkit::CLeafValue** out = _runner.values();
            const int rc = ids.empty() ? 0 : _store.read_now(ids.data(), ids.size(), out);
            if (rc == toolkit::CCds::busy) {
                LOG_DEBUG(SS_FUNCTION_CODES, 4, "Store busy; reading on the store worker");
                return submit(CStoreJob::READ);
            }
            step = rc == 0 ? _runner.read_done() : _runner.store_failed();
            break;
        }
        case CRequestRunner::WRITE:
            return submit(CStoreJob::WRITE);
        case CRequestRunner::ANSWER:
            return ANSWER;
        case CRequestRunner::SILENT:
            return SILENT;
        }
    }
}

CModbusProtocolHandler::outcome_t CModbusProtocolHandler::submit(CStoreJob::kind_t kind) {
    // A job that someone else still holds (a write queued behind a time-out) cannot be reused.
    if (!_job || _job.use_count() > 1 || _job->state() == CStoreJob::PENDING)
        _job = std::make_shared<CStoreJob>();
    _job->reset(kind);
    if (kind == CStoreJob::READ) {
        _job->ids = _runner.reads();
    } else {
        _job->ids = _runner.write_ids();
        _job->values = _runner.write_values();
    }
    std::weak_ptr<bool> alive = _alive;
    _job->done = [this, alive] {
        if (!alive.expired())
            wake();
    };
    _store.submit(_job, _timeout_ms);
    return WAIT;
}

CModbusProtocolHandler::outcome_t CModbusProtocolHandler::resumed() {
    assert(_job);
    CStoreJob& job = *_job;
    switch (job.outcome) {
    case CStoreJob::TIMED_OUT:
        return drive(_runner.timed_out());
    case CStoreJob::FAILED:
        return drive(_runner.store_failed());
    case CStoreJob::OK:
        break;
    }
    if (job.kind == CStoreJob::WRITE)
        return drive(_runner.write_done(job.statuses.data()));
    // The copies the worker made stay in the job until the answer is made.
    assert(job.read.size() == _runner.reads().size());
    const toolkit::CLeafValue** out = _runner.values();
    for (size_t i = 0; i < job.read.size(); ++i)
        out[i] = &job.read[i];
    return drive(_runner.read_done());
}
