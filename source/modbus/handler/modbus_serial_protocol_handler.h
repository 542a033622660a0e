#pragma once
// The protocol handler of one serial interface (Modbus RTU). Its transport hands it whole
// frames, each addressed to a slave the interface serves and with a good CRC (the transport's
// framer checked both), and answers what the handler returns. A write sent to address 0 is a
// broadcast: it is carried out for each slave of the interface in turn (those that do not
// map the addresses refuse it), and answered by none; anything else sent to 0 is ignored.
#include "modbus/handler/modbus_protocol_handler.h"
#include "modbus/handler/modbus_services.h"
#include "modbus/protocol/serial/modbus_serial_adu.h"

#include <vector>

class CModbusDeviceConfig;

class CModbusSerialProtocolHandler : public CModbusProtocolHandler {
public:
    // interface: the interface's number in the registry; line: its counters (null: not
    // counted), which count the port as a connection while the handler lives.
    CModbusSerialProtocolHandler(const CModbusServices& services, unsigned interface,
                                 CTransportCounters* line);
    ~CModbusSerialProtocolHandler() override;

    action_t received(iobuf_const_iter_t begin, iobuf_const_iter_t end) override;
    action_t resume() override;

    // The slave addresses the interface serves (with 0, for broadcasts, when it serves any).
    std::vector<uint8_t> served() const;
    // The whole length of the request frame that starts with the n >= 2 bytes given; 0 while
    // they do not tell yet, CModbusFunction::no_frame for a function not served.
    static size_t frame_length(const uint8_t* frame, size_t n);

private:
    CRequestRunner::unit_t unit_of(const CModbusDeviceConfig& device) const;
    action_t act(outcome_t outcome);
    // Runs the broadcast on the next slave, or ends it.
    outcome_t next_broadcast();

    const CModbusServices& _services;
    unsigned _interface;
    CTransportCounters* _line;
    CModbusSerialAdu _adu;
    iobuf_t _out;
    std::vector<const CModbusDeviceConfig*> _broadcast_targets;
    CModbusPdu _broadcast_request;
    size_t _broadcast_next = 0;
    bool _broadcasting = false;
};
