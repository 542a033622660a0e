#pragma once
// The Modbus side of a connection, common to TCP and RTU: it runs each request through the
// request runner (CRequestRunner) and does the store work the runner asks for. Reads go to
// the I/O thread's store connection at once; a read that finds the store held by another
// process, and every write, go to the store access (CStoreAccess), which answers later: the
// request then WAITs, and the transport calls resume() when the handler wakes it. Knows no
// socket and no framing; its subclasses frame the bytes and choose the unit.
#include "io/protocol_handler.h"
#include "modbus/core/request_runner.h"
#include "store/store_job.h"

#include <memory>

class CStoreAccess;

class CModbusProtocolHandler : public CProtocolHandler {
public:
    ~CModbusProtocolHandler() override;

protected:
    // What a request came to. ANSWER: the PDU holds the answer.
    enum outcome_t { ANSWER, SILENT, WAIT };

    // timeout_ms: how long a request may wait for a busy store (0: as long as it takes).
    CModbusProtocolHandler(CStoreAccess& store, const CRequestRunner::context_t& context,
                           unsigned timeout_ms);

    // Runs the request in pdu (which must live until the answer) for unit.
    outcome_t run(CModbusPdu& pdu, const CRequestRunner::unit_t& unit, uint8_t unit_id,
                  bool broadcast = false);
    // After WAIT, once woken: the store's outcome taken into the request.
    outcome_t resumed();

    CRequestRunner _runner;

private:
    outcome_t drive(CRequestRunner::step_t step);
    outcome_t submit(CStoreJob::kind_t kind);

    CStoreAccess& _store;
    unsigned _timeout_ms;
    std::shared_ptr<CStoreJob> _job;
    // Lives as long as the handler: a job's completion wakes it only while it is there.
    std::shared_ptr<bool> _alive = std::make_shared<bool>(true);
};
