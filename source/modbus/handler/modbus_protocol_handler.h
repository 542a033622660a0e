#pragma once
// The Modbus side of a connection, common to TCP and RTU: it runs each request through the
// request runner (CRequestRunner) and does the store work the runner asks for. Reads go to
// the I/O thread's store connection at once; a read that finds the store held by another
// process, and every write, go to the store access (CStoreAccess), which answers later: the
// request then WAITs, and the transport calls resume() when the handler wakes it. Knows no
// socket and no framing; its subclasses frame the bytes and choose the unit.
//
// A request for a unit that no local unit serves may lie behind a gateway line: a subclass
// asks forwards(), and forward() queues it on the line (CGatewayRouter); it WAITs for the
// slave's answer like a request waits for the store.
#include "io/protocol_handler.h"
#include "modbus/gateway/gateway_request.h"
#include "modbus/core/request_runner.h"
#include "store/store_job.h"
#include "util/log.h"

#include <memory>

class CGatewayRouter;
class CStoreAccess;

class CModbusProtocolHandler : public CProtocolHandler {
public:
    ~CModbusProtocolHandler() override;

protected:
    // What a request came to. ANSWER: the PDU holds the answer.
    enum outcome_t { ANSWER, SILENT, WAIT };

    // timeout_ms: how long a request may wait for a busy store (0: as long as it takes).
    // gateway: where requests for units behind gateway lines go (null: nowhere).
    CModbusProtocolHandler(CStoreAccess& store, const CRequestRunner::context_t& context,
                           unsigned timeout_ms, CGatewayRouter* gateway = nullptr);

    // Runs the request in pdu (which must live until the answer) for unit.
    outcome_t run(CModbusPdu& pdu, const CRequestRunner::unit_t& unit, uint8_t unit_id,
                  bool broadcast = false);
    // After WAIT, once woken: the store's outcome taken into the request, or the gateway's
    // answer into the forwarded PDU.
    outcome_t resumed();

    // Whether a request for unit_id that no local unit serves goes to a gateway line: the
    // unit is behind one, or it is 0 and pdu a write, which is broadcast on every line.
    bool forwards(uint8_t unit_id, const CModbusPdu& pdu) const;
    // Forwards pdu (which must live until the answer), when forwards() said so: WAIT for the
    // slave's answer, SILENT for a broadcast, or ANSWER at once with exception 1 when the
    // peer's access rule refuses it (a refused broadcast is dropped).
    outcome_t forward(CModbusPdu& pdu, uint8_t unit_id);

    // The transport's action for outcome: nothing, wait for resume(), or send the answer that
    // adu serializes into out (which keeps the bytes until the next call; dumped under
    // subsystem). consumed: the input bytes taken, a whole request when not 0.
    template <class Adu>
    static action_t action_for(outcome_t outcome, size_t consumed, Adu& adu, iobuf_t& out,
                               subsystem_t subsystem) {
        action_t action;
        action.consumed = consumed;
        action.request = consumed != 0;
        if (outcome == WAIT) {
            action.kind = action_t::WAIT;
        } else if (outcome == ANSWER) {
            out.clear();
            adu.serialize(out);
            LOG_DUMP(subsystem, 6, out.data(), out.size(), "Response");
            action.kind = action_t::SEND;
            action.data = out.data();
            action.size = out.size();
        }
        return action;
    }

    CRequestRunner _runner;

private:
    outcome_t drive(CRequestRunner::step_t step);
    outcome_t submit(CStoreJob::kind_t kind);

    CStoreAccess& _store;
    unsigned _timeout_ms;
    std::shared_ptr<CStoreJob> _job;
    CGatewayRouter* _gateway;
    // The request on a gateway line, and the PDU its answer goes into; null while none is.
    std::shared_ptr<CGatewayRequest> _forwarded;
    CModbusPdu* _forwarded_pdu = nullptr;
    // Lives as long as the handler: a job's completion wakes it only while it is there.
    std::shared_ptr<bool> _alive = std::make_shared<bool>(true);
};
