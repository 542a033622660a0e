#include "modbus/protocol/modbus_protocol_handler.h"

#include "cds/cds_handle.h"
#include "io/io_messenger.h"
#include "io/io_timer.h"
#include "modbus/config/modbus_config.h"
#include "modbus/config/modbus_device_config.h"
#include "threads/cds/commands/thread_cds_request.h"
#include "util/cast.h"
#include "util/log.h"

#include "toolkit/cds.h"

#include <cassert>

CModbusProtocolHandler::CModbusProtocolHandler(CIoMessenger* messenger,
                                               const CModbusServices& services)
    : CProtocolHandler(messenger), _services(services) {}

CModbusProtocolHandler::~CModbusProtocolHandler() {
    if (_timer) {
        _timer->assign(nullptr);
        _timer->cancel();
    }
}

void CModbusProtocolHandler::handle_request(CModbusPdu& pdu, const CModbusDeviceConfig& device,
                                            uint8_t unit_id) {
    _request.clear();
    CUnitCounters& unit = device.counters();
    ++unit.requests;
    _request.counters = &unit;
    if (unit.listen_only && !CModbusFunction::is_restart(pdu)) {
        ++unit.unanswered;
        drop();
        return;
    }
    if (!permitted(pdu.function, unit_id)) {
        fail(MB_ILLEGAL_FUNCTION);
        return;
    }
    _function = CModbusFunction::find(pdu.function);
    if (_function == nullptr) {
        fail(MB_ILLEGAL_FUNCTION);
        return;
    }
    // A code whose data has no fixed length (the echo of code 8) would answer as long.
    if (pdu.length() > CModbusPdu::max_length) {
        fail(MB_ILLEGAL_DATA_VALUE);
        return;
    }
    _request.pdu = &pdu;
    _request.unit = &device.unit();
    _request.zero_fill = device.zero_fill();
    _request.unit_id = unit_id;
    _request.block_writes = _services.config->block_writes();
    _request.events = _services.events;
    _request.transport = counters();
    _request.serial = serial_line();
    _rereading = false;
    const modbus_err_t e = _function->plan(_request);
    if (e != MB_NO_ERROR) {
        fail(e);
        return;
    }
    read_planned();
}

void CModbusProtocolHandler::fail(modbus_err_t code) {
    CUnitCounters& counters = *_request.counters;
    if (answered())
        counters.count_exception(code);
    else
        ++counters.unanswered;
    err(code);
}

void CModbusProtocolHandler::read_planned() {
    _request.values.resize(_request.reads.size());
    assert(_services.reader != nullptr);
    const int rc = _services.reader->read(_request.reads.data(), _request.reads.size(),
                                          _request.values.data(), false);
    if (rc == toolkit::CCds::busy) {
        LOG_DEBUG(SS_FUNCTION_CODES, 4, "Store busy; reading on the CDS thread");
        submit(std::make_unique<CThreadCdsRequest>(weak_from_this(), _request.reads));
        return;
    }
    if (rc != 0) {
        fail(MB_SLAVE_DEVICE_FAILURE);
        return;
    }
    values_read();
}

void CModbusProtocolHandler::values_read() {
    if (_function->write == nullptr || _rereading) {
        finish();
        return;
    }
    const modbus_err_t e = _function->write(_request);
    if (e != MB_NO_ERROR) {
        fail(e);
        return;
    }
    // A free store is written at once; one that another writer holds, or an earlier write
    // still queued, sends the write to the CDS thread, which may wait for the store.
    unsigned* const queued = _services.queued_writes;
    if (queued != nullptr && *queued == 0) {
        _request.write_statuses.resize(_request.write_ids.size());
        const int rc = _services.reader->write(
            _request.write_ids.data(), _request.write_values.data(), _request.write_ids.size(),
            _request.write_statuses.data(), false);
        if (rc == 0) {
            finish();
            return;
        }
        if (rc != toolkit::CCds::busy) {
            LOG_WARN(SS_FUNCTION_CODES, 1, "Writing the store failed: %s",
                     _services.reader->error().c_str());
            fail(MB_SLAVE_DEVICE_FAILURE);
            return;
        }
        LOG_DEBUG(SS_FUNCTION_CODES, 4, "Store busy; writing on the CDS thread");
    }
    submit(std::make_unique<CThreadCdsRequest>(weak_from_this(), _request.write_ids,
                                               _request.write_values, queued));
}

void CModbusProtocolHandler::finish() {
    // A read after a write (function 23) reads again what the write changed.
    if (_function->reread != nullptr && !_rereading) {
        _rereading = true;
        const modbus_err_t e = _function->reread(_request);
        if (e != MB_NO_ERROR) {
            fail(e);
            return;
        }
        read_planned();
        return;
    }
    // Events count before the answer is made, so that a request clearing the counters
    // leaves them at 0.
    CUnitCounters& unit = *_request.counters;
    const bool event = _function->event;
    if (event)
        ++unit.events;
    const modbus_err_t e = _function->answer(_request);
    if (e != MB_NO_ERROR) {
        if (event)
            --unit.events;
        fail(e);
        return;
    }
    // A request that cleared the counters (requests is 0 then: it counted itself before)
    // is not counted after them.
    if ((_request.silent || !answered()) && unit.requests != 0)
        ++unit.unanswered;
    if (_request.silent)
        drop();
    else
        respond();
}

void CModbusProtocolHandler::submit(std::unique_ptr<CThreadCommand> cmd) {
    const unsigned int timeout_ms = response_timeout();
    if (timeout_ms != 0) {
        assert(_messenger != nullptr);
        const size_t period = static_cast<size_t>(timeout_ms) * 1000u;
        if (!_timer)
            _timer = CIoTimer::create(*_messenger, period);
        _timer->reset(period);
        std::shared_ptr<CIoTimer> timer = _timer;
        cmd->give_timer(timer);
    }
    _services.submit(std::move(cmd));
}

void CModbusProtocolHandler::post(CThreadCommand& cmd, bool timed_out) {
    cmd.take_timer();
    cancel_timer();

    if (timed_out) {
        fail(MB_GATEWAY_TARGET_FAILED);
        return;
    }
    if (cmd.failed()) {
        fail(MB_SLAVE_DEVICE_FAILURE);
        return;
    }
    const CThreadCdsRequest& done = *poly_cast<CThreadCdsRequest*>(&cmd);
    if (done.is_write()) {
        _request.write_statuses = done.statuses();
        finish();
        return;
    }
    // The command lives until this call returns, and the answer is made before.
    assert(done.values().size() == _request.values.size());
    for (size_t i = 0; i < done.values().size(); ++i)
        _request.values[i] = &done.values()[i];
    values_read();
}

bool CModbusProtocolHandler::verify_pdu_length(const CModbusPdu& pdu) {
    const CModbusFunction* f = CModbusFunction::find(pdu.function);
    return f == nullptr || f->complete(pdu);
}

void CModbusProtocolHandler::cancel_timer() {
    if (_timer)
        _timer->cancel();
}

void CModbusProtocolHandler::serialize_response() {
    assert(_adu);
    assert(_messenger != nullptr);
    iobuf_t& out = _messenger->wbuf();
    out.clear();
    _adu->serialize(out);
}
