#include "modbus/handler/modbus_protocol_handler.h"

#include "modbus/gateway/gateway_router.h"
#include "store/store_access.h"
#include "util/log.h"

#include "toolkit/cds.h"

#include <cassert>

CModbusProtocolHandler::CModbusProtocolHandler(CStoreAccess& store,
                                               const CRequestRunner::context_t& context,
                                               unsigned timeout_ms, CGatewayRouter* gateway)
    : _runner(context), _store(store), _timeout_ms(timeout_ms), _gateway(gateway) {}

CModbusProtocolHandler::~CModbusProtocolHandler() {
    // A request still waiting for the store is not wanted any more.
    if (_job)
        _job->leave_pending(CStoreJob::ABANDONED);
    if (_forwarded)
        _forwarded->state = CGatewayRequest::ABANDONED;
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

bool CModbusProtocolHandler::forwards(uint8_t unit_id, const CModbusPdu& pdu) const {
    if (_gateway == nullptr || _gateway->empty())
        return false;
    if (unit_id != 0)
        return _gateway->line_for(unit_id) != nullptr;
    const CModbusFunction* function = CModbusFunction::find(pdu.function);
    return function != nullptr && function->broadcastable();
}

CModbusProtocolHandler::outcome_t CModbusProtocolHandler::forward(CModbusPdu& pdu,
                                                                  uint8_t unit_id) {
    assert(forwards(unit_id, pdu));
    const CAccessRule* access = _runner.access();
    // A code with the exception bit set would make the slave's answer ambiguous.
    const bool allowed = pdu.function != 0 && pdu.function < 0x80 &&
                         (access == nullptr || access->allows(pdu.function, unit_id));
    if (unit_id == 0) {
        if (allowed)
            _gateway->broadcast(this, pdu);
        return SILENT;
    }
    if (!allowed) {
        LOG_DEBUG(SS_FUNCTION_CODES, 2, "Function %u for unit %u refused: not the peer's to ask",
                  static_cast<unsigned>(pdu.function), static_cast<unsigned>(unit_id));
        pdu.err(MB_ILLEGAL_FUNCTION);
        return ANSWER;
    }
    // The line may still hold the last one (abandoned on the bus): it cannot be reused.
    if (!_forwarded || _forwarded.use_count() > 1)
        _forwarded = std::make_shared<CGatewayRequest>();
    _forwarded->unit = unit_id;
    _forwarded->pdu = pdu;
    std::weak_ptr<bool> alive = _alive;
    _forwarded->done = [this, alive] {
        if (!alive.expired())
            wake();
    };
    _forwarded_pdu = &pdu;
    _gateway->line_for(unit_id)->submit(this, _forwarded);
    return WAIT;
}

CModbusProtocolHandler::outcome_t CModbusProtocolHandler::resumed() {
    if (_forwarded_pdu != nullptr) {
        assert(_forwarded && _forwarded->state == CGatewayRequest::DONE);
        std::swap(*_forwarded_pdu, _forwarded->pdu);
        _forwarded_pdu = nullptr;
        return ANSWER;
    }
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
