#pragma once
// The protocol handler of one RTU over TCP connection: RTU frames (address, PDU, CRC) on a
// byte stream, as serial-to-Ethernet converters pass them on, for the units of that
// interface type, chosen by the frame's address.
//
// A stream has no silences, so frames are cut by the length their function code gives. A
// frame whose CRC fails is counted and dropped with the bytes after it up to the next place a
// frame could start (a served address, a function code served, and a good CRC where the whole
// frame is there); so are bytes that start no frame a served function code could. Bytes that
// may still become a frame are kept: the connection's frame time-out ends a stream that never
// completes one. A frame for an address behind a gateway line is forwarded there, as over TCP;
// one for an address nobody has is answered with exception 10, but for address 0, a
// broadcast, which nobody answers. A unit's diagnostics are those of
// a TCP unit (no listen-only mode). The connection counts as open from the handler's making
// to its end.
#include "modbus/handler/modbus_protocol_handler.h"
#include "modbus/handler/modbus_services.h"
#include "modbus/protocol/serial/modbus_serial_adu.h"

#include <bitset>

class CModbusRtuOverTcpProtocolHandler : public CModbusProtocolHandler {
public:
    explicit CModbusRtuOverTcpProtocolHandler(const CModbusServices& services);
    ~CModbusRtuOverTcpProtocolHandler() override;

    action_t received(iobuf_const_iter_t begin, iobuf_const_iter_t end) override;
    action_t resume() override;

private:
    // How many of the n bytes at p to drop so that the rest starts where a frame could.
    size_t resync(const uint8_t* p, size_t n) const;
    bool could_start(const uint8_t* p, size_t n) const;
    action_t act(outcome_t outcome, size_t consumed);

    const CModbusServices& _services;
    CTransportCounters* _counters;
    std::bitset<256> _served;
    CModbusSerialAdu _adu;
    iobuf_t _out;
};
