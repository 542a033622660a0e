#include "modbus/handler/modbus_rtu_over_tcp_protocol_handler.h"

#include "modbus/config/modbus_config.h"
#include "modbus/core/modbus_function.h"
#include "modbus/gateway/gateway_router.h"
#include "util/crc16.h"
#include "util/log.h"

namespace {

CRequestRunner::context_t stream_context(const CModbusServices& services) {
    CRequestRunner::context_t context;
    context.transport = services.rtu_over_tcp_counters;
    context.events = services.events;
    context.block_writes = services.config->block_writes();
    return context;
}

} // namespace

CModbusRtuOverTcpProtocolHandler::CModbusRtuOverTcpProtocolHandler(
    const CModbusServices& services)
    : CModbusProtocolHandler(*services.store, stream_context(services),
                             services.config->tcp_timeout(), services.gateway),
      _services(services), _counters(services.rtu_over_tcp_counters) {
    for (const auto& unit : _services.config->rtu_over_tcp_units())
        _served.set(unit.first);
    // A frame for a slave behind a gateway line starts where a local unit's would.
    if (_services.gateway != nullptr)
        for (unsigned unit = 1; unit < 256; ++unit)
            if (_services.gateway->line_for(static_cast<uint8_t>(unit)) != nullptr)
                _served.set(unit);
    if (_counters != nullptr) {
        ++_counters->open;
        ++_counters->total;
    }
}

CModbusRtuOverTcpProtocolHandler::~CModbusRtuOverTcpProtocolHandler() {
    if (_counters != nullptr)
        --_counters->open;
}

bool CModbusRtuOverTcpProtocolHandler::could_start(const uint8_t* p, size_t n) const {
    if (!_served[p[0]])
        return false;
    if (n < 2)
        return true;
    const size_t length = CModbusFunction::rtu_length(p, n);
    if (length == CModbusFunction::no_frame)
        return false;
    return length == 0 || n < length || crc16::holds(p, length);
}

size_t CModbusRtuOverTcpProtocolHandler::resync(const uint8_t* p, size_t n) const {
    size_t skip = 1;
    while (skip < n && !could_start(p + skip, n - skip))
        ++skip;
    return skip;
}

CProtocolHandler::action_t CModbusRtuOverTcpProtocolHandler::received(iobuf_const_iter_t begin,
                                                                      iobuf_const_iter_t end) {
    const size_t n = static_cast<size_t>(end - begin);
    const uint8_t* p = &*begin;
    action_t dropped;
    if (n < 2)
        return dropped;
    const size_t length = CModbusFunction::rtu_length(p, n);
    if (length == CModbusFunction::no_frame) {
        dropped.consumed = resync(p, n);
        LOG_DEBUG(SS_TCP_PROTOCOL, 5, "Dropping %zu bytes that start no frame", dropped.consumed);
        return dropped;
    }
    if (length == 0 || n < length)
        return dropped; // the rest of the frame is on its way, or never comes
    if (_counters != nullptr)
        ++_counters->messages;
    if (!crc16::holds(p, length)) {
        if (_counters != nullptr)
            ++_counters->checksum_errors;
        dropped.consumed = resync(p, n);
        LOG_DEBUG(SS_TCP_PROTOCOL, 5, "Bad CRC; dropping %zu bytes", dropped.consumed);
        return dropped;
    }
    // Every frame length holds an address, a function code and the CRC.
    const parse_result_t result = _adu.parse(begin, begin + static_cast<std::ptrdiff_t>(length));
    if (!is_complete(result) || is_bad(result)) {
        dropped.consumed = length;
        return dropped;
    }
    const CModbusDeviceConfig* device = _services.config->rtu_over_tcp_config(_adu.address);
    if (device == nullptr) {
        if (forwards(_adu.address, _adu.pdu))
            return act(forward(_adu.pdu, _adu.address), length);
        LOG_DEBUG(SS_TCP_PROTOCOL, 2, "Received request for unknown unit %u",
                  static_cast<unsigned>(_adu.address));
        if (_counters != nullptr)
            ++_counters->unknown_units;
        if (_adu.address == 0)
            return act(SILENT, length);
        _adu.err(MB_GATEWAY_PATH_UNAVAILABLE);
        return act(ANSWER, length);
    }
    const CRequestRunner::unit_t unit{&device->unit(), &device->counters(), device->zero_fill()};
    return act(run(_adu.pdu, unit, _adu.address), length);
}

CProtocolHandler::action_t CModbusRtuOverTcpProtocolHandler::resume() {
    return act(resumed(), 0);
}

CProtocolHandler::action_t CModbusRtuOverTcpProtocolHandler::act(outcome_t outcome, size_t consumed) {
    return action_for(outcome, consumed, _adu, _out, SS_TCP_PROTOCOL);
}
