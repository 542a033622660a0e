#include "modbus/handler/modbus_udp_protocol_handler.h"

#include "modbus/config/modbus_config.h"
#include "util/log.h"

namespace {

CRequestRunner::context_t udp_context(const CModbusServices& services) {
    CRequestRunner::context_t context;
    // The TCP units' own bus counters, so that clearing a unit over UDP clears them where TCP
    // reads them too.
    context.transport = services.tcp_counters;
    context.events = services.events;
    context.block_writes = services.config->block_writes();
    return context;
}

// The MBAP header up to the length field, which counts the rest.
constexpr size_t length_field_end = 6;

} // namespace

CModbusUdpProtocolHandler::CModbusUdpProtocolHandler(const CModbusServices& services)
    : CModbusProtocolHandler(*services.store, udp_context(services),
                             services.config->tcp_timeout(), services.gateway),
      _services(services), _counters(services.udp_counters) {}

CProtocolHandler::action_t CModbusUdpProtocolHandler::received(iobuf_const_iter_t begin,
                                                               iobuf_const_iter_t end) {
    const size_t n = static_cast<size_t>(end - begin);
    action_t dropped;
    dropped.consumed = n;
    // A unit id and a function code at least, and exactly the bytes the length field counts.
    const size_t length = n >= length_field_end ? (size_t(begin[4]) << 8 | begin[5]) : 0;
    if (length < 2 || length_field_end + length != n) {
        LOG_DEBUG(SS_TCP_PROTOCOL, 4, "Dropping a datagram of %zu bytes: not one MBAP frame", n);
        if (_counters != nullptr)
            ++_counters->dropped;
        return dropped;
    }
    const parse_result_t result = _adu.parse(begin, end);
    if (!is_complete(result) || is_bad(result) || result.second != end) {
        if (_counters != nullptr)
            ++_counters->dropped;
        return dropped;
    }
    if (_counters != nullptr)
        ++_counters->messages;
    if (_adu.header.protocol_id != 0)
        return dropped;
    const unit_id_t unit_id = _adu.header.unit_id;
    const CModbusDeviceConfig* device = _services.config->tcp_config(unit_id);
    if (device == nullptr) {
        if (forwards(unit_id, _adu.pdu))
            return act(forward(_adu.pdu, unit_id));
        LOG_DEBUG(SS_TCP_PROTOCOL, 2, "Received request for unknown UnitID %u", unit_id);
        if (_counters != nullptr)
            ++_counters->unknown_units;
        _adu.err(MB_GATEWAY_PATH_UNAVAILABLE);
        return act(ANSWER);
    }
    const CRequestRunner::unit_t unit{&device->unit(), &device->counters(), device->zero_fill()};
    return act(run(_adu.pdu, unit, unit_id));
}

CProtocolHandler::action_t CModbusUdpProtocolHandler::resume() {
    return act(resumed());
}

CProtocolHandler::action_t CModbusUdpProtocolHandler::act(outcome_t outcome) {
    return action_for(outcome, 0, _adu, _out, SS_TCP_PROTOCOL);
}
