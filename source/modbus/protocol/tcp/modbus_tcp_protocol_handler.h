#pragma once
// The protocol handler of one Modbus TCP connection: MBAP framing, requests with another
// protocol id than 0 dropped silently, the device chosen by unit id, responses echoing
// the request's header. A client of the secure port has a role (from its certificate) that
// limits the functions and units it may ask for.
#include "modbus/protocol/modbus_protocol_handler.h"

#include <string>

class CModbusTcpAdu;

class CModbusTcpProtocolHandler : public CModbusProtocolHandler {
public:
    // No valid frame is longer than a header and a full length field's worth of bytes; a
    // connection whose unread bytes pass this without a complete frame is closed.
    static constexpr size_t max_unread = 7 + 65536;

    CModbusTcpProtocolHandler(CIoMessenger* messenger, const CModbusServices& services);
    // A connection counts as open from its start until its handler goes.
    ~CModbusTcpProtocolHandler() override;
    void started() override;
    void set_peer_identity(const std::string& role) override;

    bool parse() override;
    bool validate(unsigned char) override { return false; }
    bool parse_request() override;
    std::shared_ptr<CProtocolHandler> clone(CIoMessenger* messenger) const override;
    void respond() override;
    void err(modbus_err_t code) override;
    void execute() override;
    CTransportCounters* counters() const override { return _services.tcp_counters; }

protected:
    unsigned int response_timeout() const override;
    void drop() override { parse_again(); }
    bool permitted(uint8_t function, uint8_t unit_id) const override;

private:
    CModbusTcpAdu& adu();
    void parse_again();

    bool _counted = false;
    // Set once a secure transport named the peer's role (empty: none).
    bool _secure = false;
    std::string _role;
};
