#pragma once
// The protocol handler of one serial interface (Modbus RTU). It answers only frames with a
// good CRC addressed to a slave the interface serves; everything else is dropped without a
// reply, and the transport hunts for the next frame after a silent interval.
#include "modbus/protocol/modbus_protocol_handler.h"

#include <bitset>
#include <vector>

class CModbusSerialAdu;

class CModbusSerialProtocolHandler : public CModbusProtocolHandler {
public:
    CModbusSerialProtocolHandler(CIoMessenger* messenger, const CModbusServices& services);
    ~CModbusSerialProtocolHandler() override;

    bool parse() override;
    // Whether the interface serves this slave address (known after set_timeout).
    bool validate(unsigned char address) override { return _uid_map[address]; }
    // Takes the response time-out (milliseconds) and learns the served slave addresses.
    void set_timeout(unsigned int timeout) override;
    void create_adu() override;
    // Address, the request's PDU as its function code tells, and the CRC.
    size_t frame_length(const uint8_t* frame, size_t n) const override;
    bool parse_request() override;
    std::shared_ptr<CProtocolHandler> clone(CIoMessenger* messenger) const override;
    void respond() override;
    void err(modbus_err_t code) override;
    void execute() override;
    bool more_data_needed() const override;
    // The line's counters, known from set_timeout on (the connection is not yet built when
    // its handler is made).
    CTransportCounters* counters() const override { return _line; }

protected:
    unsigned int response_timeout() const override { return _timeout; }
    bool serial_line() const override { return true; }
    bool answered() const override { return !_broadcasting; }
    void drop() override;

private:
    CModbusSerialAdu& adu() const;
    unsigned int interface_id() const;
    // Forget the frame and hunt for the next one.
    void ignore();
    // A write to address 0: carried out for each slave of the interface in turn (those that
    // do not map the addresses refuse it), and answered by none.
    void broadcast();
    void next_broadcast();

    unsigned int _timeout = 1000;
    CTransportCounters* _line = nullptr;
    std::bitset<256> _uid_map;
    std::vector<const CModbusDeviceConfig*> _broadcast_targets;
    CModbusPdu _broadcast_request;
    size_t _broadcast_next = 0;
    bool _broadcasting = false;
};
