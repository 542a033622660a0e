#pragma once
// The protocol handler of Modbus/UDP: one request per datagram, MBAP-framed as over TCP, for
// the TCP units. A datagram whose MBAP length disagrees with its size (a frame cut short, two
// frames in one, bytes after a frame) holds no request: it is dropped unanswered and counted.
// Otherwise as a TCP connection's handler: another protocol id than 0 is dropped silently, a
// unit id behind a gateway line forwarded there, another unknown one answered with exception
// 10, and every answer echoes the request's header.
//
// The units are the TCP ones, so their diagnostics report the TCP transport's bus counters
// whichever way they are asked; the UDP transport's own counters are its statistics.
#include "modbus/handler/modbus_protocol_handler.h"
#include "modbus/handler/modbus_services.h"
#include "modbus/protocol/tcp/modbus_tcp_adu.h"

class CModbusUdpProtocolHandler : public CModbusProtocolHandler {
public:
    explicit CModbusUdpProtocolHandler(const CModbusServices& services);

    // begin, end: one whole datagram.
    action_t received(iobuf_const_iter_t begin, iobuf_const_iter_t end) override;
    action_t resume() override;

private:
    action_t act(outcome_t outcome);

    const CModbusServices& _services;
    CTransportCounters* _counters;
    CModbusTcpAdu _adu;
    iobuf_t _out;
};
