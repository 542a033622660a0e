#include "modbus/core/request_runner.h"

#include "util/log.h"

#include <cassert>

CRequestRunner::step_t CRequestRunner::start(CModbusPdu& pdu, const unit_t& unit, uint8_t unit_id,
                                             bool broadcast) {
    assert(unit.map != nullptr && unit.counters != nullptr);
    _req.clear();
    _req.pdu = &pdu;
    _req.unit = unit.map;
    _req.counters = unit.counters;
    _req.zero_fill = unit.zero_fill;
    _req.unit_id = unit_id;
    _req.block_writes = _context.block_writes;
    _req.events = _context.events;
    _req.transport = _context.transport;
    _req.serial = _context.serial;
    _broadcast = broadcast;
    _rereading = false;
    _function = nullptr;

    CUnitCounters& counters = *unit.counters;
    ++counters.requests;
    if (counters.listen_only && !CModbusFunction::is_restart(pdu)) {
        ++counters.unanswered;
        return SILENT;
    }
    if (_context.access != nullptr && !_context.access->allows(pdu.function, unit_id)) {
        LOG_DEBUG(SS_FUNCTION_CODES, 2, "Function %u to unit %u is not allowed for the peer",
                  static_cast<unsigned>(pdu.function), static_cast<unsigned>(unit_id));
        return fail(MB_ILLEGAL_FUNCTION);
    }
    _function = CModbusFunction::find(pdu.function);
    if (_function == nullptr)
        return fail(MB_ILLEGAL_FUNCTION);
    // A code whose data has no fixed length (the echo of code 8) would answer as long.
    if (pdu.length() > CModbusPdu::max_length)
        return fail(MB_ILLEGAL_DATA_VALUE);
    const modbus_err_t e = _function->plan(_req);
    if (e != MB_NO_ERROR)
        return fail(e);
    return READ;
}

CRequestRunner::step_t CRequestRunner::read_done() {
    assert(_req.values.size() == _req.reads.size());
    if (_function->write == nullptr || _rereading)
        return finish();
    const modbus_err_t e = _function->write(_req);
    if (e != MB_NO_ERROR)
        return fail(e);
    return WRITE;
}

CRequestRunner::step_t CRequestRunner::write_done(const api_status_t* statuses) {
    _req.write_statuses.assign(statuses, statuses + _req.write_ids.size());
    return finish();
}

CRequestRunner::step_t CRequestRunner::finish() {
    // A read after a write (function 23) reads again what the write changed.
    if (_function->reread != nullptr && !_rereading) {
        _rereading = true;
        const modbus_err_t e = _function->reread(_req);
        return e != MB_NO_ERROR ? fail(e) : READ;
    }
    // Events count before the answer is made, so that a request clearing the counters
    // leaves them at 0.
    CUnitCounters& unit = *_req.counters;
    if (_function->event)
        ++unit.events;
    const modbus_err_t e = _function->answer(_req);
    if (e != MB_NO_ERROR) {
        if (_function->event)
            --unit.events;
        return fail(e);
    }
    // A request that cleared the counters (requests is 0 then: it counted itself before)
    // is not counted after them.
    if ((_req.silent || _broadcast) && unit.requests != 0)
        ++unit.unanswered;
    return _req.silent || _broadcast ? SILENT : ANSWER;
}

CRequestRunner::step_t CRequestRunner::fail(modbus_err_t code) {
    CUnitCounters& counters = *_req.counters;
    if (_broadcast) {
        LOG_DEBUG(SS_FUNCTION_CODES, 3, "Broadcast not carried out by unit %u: exception %u",
                  static_cast<unsigned>(_req.unit_id), static_cast<unsigned>(code));
        ++counters.unanswered;
        return SILENT;
    }
    counters.count_exception(code);
    _req.pdu->err(code);
    return ANSWER;
}
