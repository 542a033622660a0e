#pragma once
// The protocol handler of one Modbus TCP connection: MBAP framing, requests with another
// protocol id than 0 dropped silently, the unit chosen by unit id (forwarded when a gateway
// line serves it, else exception 10 when no unit has it), answers echoing the request's
// header. A client of the secure port has a role (from its certificate) that limits the
// functions and units it may ask for, behind a gateway too. The connection counts as open
// from the handler's making to its end.
#include "modbus/handler/modbus_protocol_handler.h"
#include "modbus/handler/modbus_services.h"
#include "modbus/protocol/tcp/modbus_tcp_adu.h"

#include <string>

class CModbusTcpProtocolHandler : public CModbusProtocolHandler {
public:
    // No valid frame is longer than a header and a full length field's worth of bytes; a
    // connection whose unread bytes pass this without a complete frame is closed.
    static constexpr size_t max_unread = 7 + 65536;

    explicit CModbusTcpProtocolHandler(const CModbusServices& services);
    ~CModbusTcpProtocolHandler() override;

    action_t received(iobuf_const_iter_t begin, iobuf_const_iter_t end) override;
    action_t resume() override;
    void set_peer_identity(const std::string& role) override;

private:
    // The action for an outcome of the frame that took `consumed` bytes.
    action_t act(outcome_t outcome, size_t consumed);
    action_t answer_exception(modbus_err_t code, size_t consumed);

    const CModbusServices& _services;
    CModbusTcpAdu _adu;
    iobuf_t _out;
};
