#include "modbus/handler/modbus_tcp_protocol_handler.h"

#include "modbus/config/modbus_config.h"
#include "modbus/config/modbus_roles.h"
#include "util/log.h"

#include <cassert>

namespace {

CRequestRunner::context_t tcp_context(const CModbusServices& services) {
    CRequestRunner::context_t context;
    context.transport = services.tcp_counters;
    context.events = services.events;
    context.block_writes = services.config->block_writes();
    return context;
}

// The MBAP header's length.
constexpr size_t header_size = 7;

} // namespace

CModbusTcpProtocolHandler::CModbusTcpProtocolHandler(const CModbusServices& services)
    : CModbusProtocolHandler(*services.store, tcp_context(services),
                             services.config->tcp_timeout(), services.gateway),
      _services(services) {
    if (CTransportCounters* counters = _services.tcp_counters) {
        ++counters->open;
        ++counters->total;
    }
}

CModbusTcpProtocolHandler::~CModbusTcpProtocolHandler() {
    if (CTransportCounters* counters = _services.tcp_counters)
        --counters->open;
}

void CModbusTcpProtocolHandler::set_peer_identity(const std::string& role) {
    static const CAccessRule nothing{};
    _runner.set_access(_services.roles != nullptr ? &_services.roles->rule_for(role) : &nothing);
}

CProtocolHandler::action_t CModbusTcpProtocolHandler::received(iobuf_const_iter_t begin,
                                                               iobuf_const_iter_t end) {
    const size_t n = static_cast<size_t>(end - begin);
    const parse_result_t result = _adu.parse(begin, end);
    assert(result.second <= end);
    if (is_incomplete(result)) {
        action_t action;
        if (_adu.header.length == 1 && n >= header_size) {
            // A header announcing no function code would wait for one forever: the frame
            // parses as incomplete however much follows. Drop its 7 bytes unanswered.
            LOG_DEBUG(SS_TCP_PROTOCOL, 7, "Dropping a frame without a function code");
            action.consumed = header_size;
            action.request = true; // a whole frame, if a useless one: the client is not idle
        } else if (n > max_unread) {
            LOG_WARN(SS_TCP_PROTOCOL, 1, "No complete request in %zu bytes; closing connection", n);
            action.kind = action_t::CLOSE;
        }
        return action;
    }
    const size_t consumed = static_cast<size_t>(result.second - begin);
    if (_services.tcp_counters != nullptr)
        ++_services.tcp_counters->messages;
    if (is_bad(result)) {
        LOG_DEBUG(SS_TCP_PROTOCOL, 7, "Error encountered while parsing ADU");
        return answer_exception(MB_ILLEGAL_DATA_VALUE, consumed);
    }
    if (_adu.header.protocol_id != 0)
        return act(SILENT, consumed);
    const unit_id_t unit_id = _adu.header.unit_id;
    const CModbusDeviceConfig* device = _services.config->tcp_config(unit_id);
    if (device == nullptr) {
        if (forwards(unit_id, _adu.pdu))
            return act(forward(_adu.pdu, unit_id), consumed);
        LOG_DEBUG(SS_TCP_PROTOCOL, 2, "Received request for unknown UnitID %u", unit_id);
        if (_services.tcp_counters != nullptr)
            ++_services.tcp_counters->unknown_units;
        return answer_exception(MB_GATEWAY_PATH_UNAVAILABLE, consumed);
    }
    const CRequestRunner::unit_t unit{&device->unit(), &device->counters(), device->zero_fill()};
    return act(run(_adu.pdu, unit, unit_id), consumed);
}

CProtocolHandler::action_t CModbusTcpProtocolHandler::resume() {
    return act(resumed(), 0);
}

CProtocolHandler::action_t CModbusTcpProtocolHandler::answer_exception(modbus_err_t code,
                                                                       size_t consumed) {
    _adu.err(code);
    return act(ANSWER, consumed);
}

CProtocolHandler::action_t CModbusTcpProtocolHandler::act(outcome_t outcome, size_t consumed) {
    return action_for(outcome, consumed, _adu, _out, SS_TCP_PROTOCOL);
}
