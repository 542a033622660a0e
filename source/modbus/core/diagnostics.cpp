// Diagnostics (8) and the communication event counter (11): the unit's counters, read and
// cleared; nothing of the store. The counters answer 16 bits of their 32.
#include "modbus/core/function_steps.h"

using steps::read_u16;

namespace {

enum diagnostic_t : uint16_t {
    DIAG_RETURN_QUERY = 0,
    DIAG_RESTART = 1,
    DIAG_LISTEN_ONLY = 4,
    DIAG_CLEAR = 10,
    DIAG_BUS_MESSAGES = 11,
    DIAG_BUS_ERRORS = 12,
    DIAG_BUS_EXCEPTIONS = 13,
    DIAG_SERVER_MESSAGES = 14,
    DIAG_NO_RESPONSE = 15,
    DIAG_NAK = 16,
    DIAG_BUSY = 17,
    DIAG_OVERRUNS = 18,
};

uint32_t diagnostic_count(const CModbusRequest& req, uint16_t sub) {
    const CUnitCounters& c = *req.counters;
    const CTransportCounters* t = req.transport;
    switch (sub) {
    case DIAG_BUS_MESSAGES:
        return t != nullptr ? t->messages - c.base.messages : 0;
    case DIAG_BUS_ERRORS:
        return t != nullptr ? t->checksum_errors - c.base.checksum_errors : 0;
    case DIAG_BUS_EXCEPTIONS:
        return c.exceptions;
    case DIAG_SERVER_MESSAGES:
        return c.requests;
    case DIAG_NO_RESPONSE:
        return c.unanswered;
    case DIAG_NAK:
        return c.by_code[7];
    case DIAG_BUSY:
        return c.by_code[MB_SLAVE_DEVICE_BUSY];
    default:
        return 0; // character overruns: the line driver does not tell them
    }
}

} // namespace

bool steps::is_restart(const iobuf_t& data) {
    return data.size() >= 2 && read_u16(data, 0) == DIAG_RESTART;
}

modbus_err_t steps::plan_diagnostics(CModbusRequest& req) {
    const iobuf_t& data = req.pdu->data;
    if (data.size() < 4)
        return MB_ILLEGAL_DATA_VALUE;
    const uint16_t sub = read_u16(data, 0);
    if (sub == DIAG_RETURN_QUERY)
        return MB_NO_ERROR; // any data, echoed
    const bool known = sub == DIAG_RESTART || sub == DIAG_CLEAR ||
                       (sub == DIAG_LISTEN_ONLY && req.serial) ||
                       (sub >= DIAG_BUS_MESSAGES && sub <= DIAG_OVERRUNS);
    if (!known)
        return MB_ILLEGAL_FUNCTION;
    if (data.size() != 4)
        return MB_ILLEGAL_DATA_VALUE;
    const uint16_t value = read_u16(data, 2);
    // A restart may ask to clear the event log too (0xFF00); everything else carries 0.
    if (value != 0 && !(sub == DIAG_RESTART && value == 0xFF00))
        return MB_ILLEGAL_DATA_VALUE;
    return MB_NO_ERROR;
}

modbus_err_t steps::answer_diagnostics(CModbusRequest& req) {
    iobuf_t& data = req.pdu->data;
    const uint16_t sub = read_u16(data, 0);
    if (sub == DIAG_RETURN_QUERY)
        return MB_NO_ERROR;
    if (req.counters == nullptr) {
        data[2] = data[3] = 0;
        return MB_NO_ERROR;
    }
    CUnitCounters& c = *req.counters;
    switch (sub) {
    case DIAG_RESTART:
        // Out of listen-only mode, without an answer; otherwise answered, then restarted.
        req.silent = c.listen_only;
        c.listen_only = false;
        c.clear(req.transport);
        break;
    case DIAG_LISTEN_ONLY:
        c.listen_only = true;
        req.silent = true;
        break;
    case DIAG_CLEAR:
        c.clear(req.transport);
        break;
    default: {
        const uint32_t n = diagnostic_count(req, sub);
        data[2] = static_cast<uint8_t>(n >> 8);
        data[3] = static_cast<uint8_t>(n);
    }
    }
    return MB_NO_ERROR;
}

modbus_err_t steps::plan_event_counter(CModbusRequest& req) {
    return req.pdu->data.empty() ? MB_NO_ERROR : MB_ILLEGAL_DATA_VALUE;
}

modbus_err_t steps::answer_event_counter(CModbusRequest& req) {
    const uint32_t n = req.counters != nullptr ? req.counters->events : 0;
    // Status 0: no earlier request is still being carried out when this one is answered.
    req.pdu->data.assign({0x00, 0x00, static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)});
    return MB_NO_ERROR;
}
