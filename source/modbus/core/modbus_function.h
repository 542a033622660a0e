#pragma once
// The function codes the server answers: one table, one entry per code, and nothing here
// knows a socket, a thread or the store. A request goes through the steps of its entry:
//
//   plan(req)    checks the request and names the leaves to read (req.reads);
//   (the caller reads them and points req.values at the answers)
//   write(req)   writes only: the leaves to store (req.write_ids and write_values);
//   (the caller writes them in one transaction and fills req.write_statuses)
//   reread(req)  only for a read after a write (function 23): checks what the store made
//                of the write and names the leaves to read for the answer (req.reads);
//   (the caller reads them again)
//   answer(req)  turns req.pdu into the response.
//
// Each step returns MB_NO_ERROR or the exception code to answer with; the request runner
// (CRequestRunner) calls them and answers exception 4 itself when the store fails, and 11
// when it does not answer in time.
#include "modbus/core/modbus_request.h"
#include "modbus/protocol/protocol_object.h"

#include <cstdint>

struct CModbusFunction {
    typedef modbus_err_t (*step_t)(CModbusRequest& req);

    uint8_t code;
    // Data bytes (after the function code) of the shortest request.
    uint8_t min_data;
    // Where the request's byte count is, counted from the function code, for requests that
    // carry that many bytes after it; 0 for requests of a fixed length.
    uint8_t count_at;
    step_t plan;
    step_t write;  // null for reads
    step_t reread; // null but for a read after a write
    step_t answer;
    // Carrying it out counts as a communication event (function 11 counts all but itself).
    bool event;

    // Whether a request to every unit at once (a broadcast) may carry it: the writes that
    // answer nothing to read back (not 23).
    bool broadcastable() const { return write != nullptr && reread == nullptr; }

    // The length of the request whose PDU (function code first) starts with the n bytes
    // given, or 0 while they do not tell yet: RTU frames carry no length of their own.
    size_t request_length(const uint8_t* pdu, size_t n) const;
    // Whether pdu holds every byte its request needs (a serial frame may arrive in parts).
    bool complete(const CModbusPdu& pdu) const;

    // The entry of code; null for a function the server does not answer (exception 1).
    static const CModbusFunction* find(uint8_t code);
    // Whether pdu restarts communications (diagnostics, sub-function 1): the one request a
    // slave that listens only still carries out.
    static bool is_restart(const CModbusPdu& pdu);
    // The whole length of the RTU request frame (address, PDU, CRC) that starts with the
    // n >= 2 bytes given; 0 while they do not tell yet, no_frame for a function not served.
    static constexpr size_t no_frame = static_cast<size_t>(-1);
    static size_t rtu_length(const uint8_t* frame, size_t n);
};
