#include "modbus/handler/modbus_serial_protocol_handler.h"

#include "modbus/config/modbus_config.h"
#include "modbus/core/modbus_function.h"
#include "util/log.h"

#include <cassert>

namespace {

CRequestRunner::context_t serial_context(const CModbusServices& services,
                                         const CTransportCounters* line) {
    CRequestRunner::context_t context;
    context.transport = line;
    context.events = services.events;
    context.serial = true;
    context.block_writes = services.config->block_writes();
    return context;
}

} // namespace

CModbusSerialProtocolHandler::CModbusSerialProtocolHandler(const CModbusServices& services,
                                                           unsigned interface,
                                                           CTransportCounters* line)
    : CModbusProtocolHandler(*services.store, serial_context(services, line),
                             services.config->serial_timeout()),
      _services(services), _interface(interface), _line(line) {
    if (_line != nullptr) {
        ++_line->open;
        ++_line->total;
    }
}

CModbusSerialProtocolHandler::~CModbusSerialProtocolHandler() {
    if (_line != nullptr)
        --_line->open;
}

std::vector<uint8_t> CModbusSerialProtocolHandler::served() const {
    std::vector<uint8_t> out;
    for (const auto& slave : _services.config->serial_units())
        if (slave.first.first == _interface)
            out.push_back(slave.first.second);
    if (!out.empty())
        out.push_back(0);
    return out;
}

size_t CModbusSerialProtocolHandler::frame_length(const uint8_t* frame, size_t n) {
    return CModbusFunction::rtu_length(frame, n);
}

CRequestRunner::unit_t
CModbusSerialProtocolHandler::unit_of(const CModbusDeviceConfig& device) const {
    return CRequestRunner::unit_t{&device.unit(), &device.counters(), device.zero_fill()};
}

CProtocolHandler::action_t CModbusSerialProtocolHandler::received(iobuf_const_iter_t begin,
                                                                  iobuf_const_iter_t end) {
    const size_t n = static_cast<size_t>(end - begin);
    action_t dropped;
    dropped.consumed = n;
    if (is_bad(_adu.parse(begin, end)))
        return dropped;
    dropped.request = true;
    if (_adu.address == 0) {
        const CModbusFunction* f = CModbusFunction::find(_adu.pdu.function);
        // Only writes are broadcast; anything else to address 0 is ignored.
        if (f == nullptr || !f->broadcastable())
            return dropped;
        _broadcast_targets.clear();
        for (const auto& slave : _services.config->serial_units())
            if (slave.first.first == _interface)
                _broadcast_targets.push_back(slave.second);
        _broadcast_request = _adu.pdu;
        _broadcast_next = 0;
        _broadcasting = true;
        action_t action = act(next_broadcast());
        action.consumed = n;
        action.request = true;
        return action;
    }
    const CModbusDeviceConfig* device = _services.config->serial_config(_interface, _adu.address);
    if (device == nullptr)
        return dropped;
    action_t action = act(run(_adu.pdu, unit_of(*device), _adu.address));
    action.consumed = n;
    action.request = true;
    return action;
}

CModbusSerialProtocolHandler::outcome_t CModbusSerialProtocolHandler::next_broadcast() {
    while (_broadcast_next < _broadcast_targets.size()) {
        const CModbusDeviceConfig& device = *_broadcast_targets[_broadcast_next++];
        // Each slave gets the request as it came: the last one's answer replaced it.
        _adu.pdu = _broadcast_request;
        const outcome_t outcome = run(_adu.pdu, unit_of(device), 0, true);
        if (outcome == WAIT)
            return WAIT;
    }
    _broadcasting = false;
    return SILENT;
}

CProtocolHandler::action_t CModbusSerialProtocolHandler::resume() {
    const outcome_t outcome = resumed();
    if (_broadcasting && outcome != WAIT)
        return act(next_broadcast());
    return act(outcome);
}

CProtocolHandler::action_t CModbusSerialProtocolHandler::act(outcome_t outcome) {
    assert(!_broadcasting || outcome != ANSWER);
    return action_for(outcome, 0, _adu, _out, SS_SERIAL_PROTOCOL);
}
