#pragma once
// Runs one request for one unit, from its PDU to its answer, through the function table
// (CModbusFunction). It knows no socket, thread or store connection: it says what it needs
// and is told what came of it.
//
//   start(pdu, unit, unit_id)  READ:   read reads() into values(), then read_done()
//   read_done()                WRITE:  write write_ids() with write_values() in one
//                                      transaction, then write_done(a status per leaf)
//   write_done(statuses)       ANSWER: pdu holds the answer, or its exception
//                              SILENT: send nothing (a broadcast, a unit that listens only,
//                                      a restart that leaves listen-only mode)
//   store_failed()             after READ or WRITE: the store failed (exception 4)
//   timed_out()                after READ or WRITE: the store did not answer in time
//                              (exception 11)
//
// It keeps the unit's counters (requests, exceptions by code, events, unanswered) and its
// listen-only mode, and refuses what the peer's access rule does not allow (exception 1).
// The values read must stay valid until the next call. One request at a time; the runner and
// its vectors are reused, so that after the first requests a request allocates nothing.
#include "modbus/core/access_rule.h"
#include "modbus/core/modbus_function.h"
#include "modbus/core/modbus_request.h"

#include <cstdint>
#include <vector>

class CRequestRunner {
public:
    enum step_t { READ, WRITE, ANSWER, SILENT };

    // Where requests come from: what the transport knows.
    struct context_t {
        // The transport's counters (bus messages and checksum errors for diagnostics).
        const CTransportCounters* transport = nullptr;
        // The newest events, for event mappings; null: they read as unmapped.
        const CEventQueue* events = nullptr;
        // Requests come from a serial line: slaves may be told to listen only.
        bool serial = false;
        // Multiple register writes may span several parameters, all written or none.
        bool block_writes = false;
        // What the peer may ask; null: anything.
        const CAccessRule* access = nullptr;
    };

    // A unit as a request sees it.
    struct unit_t {
        const CUnitMap* map = nullptr;
        CUnitCounters* counters = nullptr;
        // Unmapped or unreadable addresses read as 0 rather than failing the request.
        bool zero_fill = false;
    };

    CRequestRunner() = default;
    explicit CRequestRunner(const context_t& context) : _context(context) {}
    void set_access(const CAccessRule* access) { _context.access = access; }
    const CAccessRule* access() const { return _context.access; }

    // Starts the request in pdu (which must live until the answer) for unit, addressed as
    // unit_id; a broadcast is carried out and answered by nobody.
    step_t start(CModbusPdu& pdu, const unit_t& unit, uint8_t unit_id, bool broadcast = false);
    step_t read_done();
    step_t write_done(const api_status_t* statuses);
    step_t store_failed() { return fail(MB_SLAVE_DEVICE_FAILURE); }
    step_t timed_out() { return fail(MB_GATEWAY_TARGET_FAILED); }

    // After READ: the leaves to read, and where the caller puts the values read (one per
    // leaf, in order) before read_done(). After WRITE: the leaves to write and their values.
    const std::vector<toolkit::leaf_id_t>& reads() const { return _req.reads; }
    const toolkit::CLeafValue** values() {
        _req.values.resize(_req.reads.size());
        return _req.values.data();
    }
    const std::vector<toolkit::leaf_id_t>& write_ids() const { return _req.write_ids; }
    const std::vector<toolkit::CElement>& write_values() const { return _req.write_values; }

private:
    step_t fail(modbus_err_t code);
    step_t values_read();
    step_t finish();

    context_t _context;
    CModbusRequest _req;
    const CModbusFunction* _function = nullptr;
    bool _broadcast = false;
    // The write of the request is stored and its answer is being read (function 23).
    bool _rereading = false;
};
