#pragma once
// The Modbus side of a connection's protocol handler, common to TCP and RTU: it owns the
// frame (reused for every request and its response), the function handler of the request
// in flight and the response timer. One request at a time per connection.
#include "modbus/protocol/modbus_pdu.h"
#include "modbus/protocol/protocol_object.h"
#include "protocol/protocol_handler.h"

#include <memory>

class CIoTimer;
class CModbusDeviceConfig;
class CModbusFunctionHandler;

class CModbusProtocolHandler : public CProtocolHandler {
public:
    explicit CModbusProtocolHandler(CIoMessenger* messenger);
    ~CModbusProtocolHandler() override;

    // Serializes the frame into the messenger's write buffer and sends it.
    virtual void respond() = 0;
    // Turns the frame into the exception response for code and sends it.
    virtual void err(modbus_err_t code) = 0;
    // Runs the request held in the frame.
    virtual void execute() = 0;
    // Whether a complete frame still lacks bytes its function needs.
    virtual bool more_data_needed() const { return false; }

    // Dispatches on the function code; the function handler answers later.
    void handle_request(CModbusPdu& pdu, CModbusDeviceConfig& device);
    // Whether the PDU holds the bytes its function needs (true for unsupported functions,
    // so that they are answered rather than waited for).
    static bool verify_pdu_length(const CModbusPdu& pdu);

    // The timer of the request in flight; function handlers hand it to their commands.
    std::shared_ptr<CIoTimer>& response_timer() { return _timer; }

protected:
    // Starts a response timer of timeout_ms (none when 0), replacing any earlier one.
    void start_timer(unsigned int timeout_ms);
    void drop_timer();
    // Serializes the frame into the messenger's write buffer.
    void serialize_response();

    std::shared_ptr<CIoTimer> _timer;
    std::shared_ptr<CModbusFunctionHandler> _function;
    std::unique_ptr<CModbusAdu> _adu;
};
