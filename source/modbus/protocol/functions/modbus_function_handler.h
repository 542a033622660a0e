#pragma once
// The handler of one Modbus request, from its checks to its answer. It lives as long as
// its protocol handler keeps it (until the next request or the connection's end); the CDS
// thread holds it only weakly, so an answer for a connection that went away is dropped.
#include "modbus/protocol/modbus_protocol_handler.h"
#include "threads/commands/thread_response_handler.h"

#include <memory>

class CModbusDeviceConfig;
class CThreadCommand;

class CModbusFunctionHandler : public CThreadResponseHandler,
                               public std::enable_shared_from_this<CModbusFunctionHandler> {
public:
    CModbusFunctionHandler(CModbusProtocolHandler& prot, CModbusPdu& pdu,
                           CModbusDeviceConfig& device)
        : _prot(prot), _pdu(pdu), _device(device) {}

    virtual void execute() = 0;
    // The store did not answer in time.
    void timeout() { _prot.err(MB_GATEWAY_TARGET_FAILED); }

protected:
    // Queues cmd for the CDS thread with the request's response timer.
    void send(std::unique_ptr<CThreadCommand> cmd, std::shared_ptr<CIoTimer>& timer);
    // The response timer, back from a served command, stopped.
    static void stop_timer(std::shared_ptr<CIoTimer> timer);
    void err(modbus_err_t code) { _prot.err(code); }

    CModbusProtocolHandler& _prot;
    CModbusPdu& _pdu;
    CModbusDeviceConfig& _device;
};
