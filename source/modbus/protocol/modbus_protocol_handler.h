#pragma once
// The Modbus side of a connection's protocol handler, common to TCP and RTU. It runs every
// request the same way, through the function table (CModbusFunction): plan, read the leaves
// from the I/O thread's store connection, write (for writes) on the CDS thread, answer.
//
// A read is served on the I/O thread when the store is not locked; otherwise, and for every
// write, the work goes to the CDS thread with the response timer running, and the answer
// comes back through post(). One request at a time per connection. The frame, the request
// state and the timer are reused from one request to the next.
#include "io/protocol_handler.h"
#include "modbus/core/modbus_function.h"
#include "modbus/core/modbus_request.h"
#include "modbus/protocol/modbus_pdu.h"
#include "modbus/protocol/modbus_services.h"
#include "modbus/protocol/protocol_object.h"
#include "threads/commands/thread_response_handler.h"

#include <memory>

class CIoTimer;
class CModbusDeviceConfig;

class CModbusProtocolHandler : public CProtocolHandler,
                               public CThreadResponseHandler,
                               public std::enable_shared_from_this<CModbusProtocolHandler> {
public:
    CModbusProtocolHandler(CIoMessenger* messenger, const CModbusServices& services);
    ~CModbusProtocolHandler() override;

    // Serializes the frame into the messenger's write buffer and sends it.
    virtual void respond() = 0;
    // Turns the frame into the exception response for code and sends it.
    virtual void err(modbus_err_t code) = 0;
    // Runs the request held in the frame.
    virtual void execute() = 0;
    // Whether a complete frame still lacks bytes its function needs.
    virtual bool more_data_needed() const { return false; }

    // Runs one request for device (unit id or slave address unit_id); the answer goes out
    // now or from post().
    void handle_request(CModbusPdu& pdu, const CModbusDeviceConfig& device, uint8_t unit_id);
    // Whether the PDU holds the bytes its function needs (true for unsupported functions,
    // so that they are answered rather than waited for).
    static bool verify_pdu_length(const CModbusPdu& pdu);

    // The CDS thread is done with the request's read or write.
    void post(CThreadCommand& cmd, bool timed_out) override;

protected:
    // The time the CDS thread gets for its part of a request, in milliseconds (0: no limit).
    virtual unsigned int response_timeout() const = 0;
    // Whether requests come from a serial line (slaves may be told to listen only).
    virtual bool serial_line() const { return false; }
    // Whether the request under way gets an answer (not a broadcast).
    virtual bool answered() const { return true; }
    // Goes on without answering the request under way.
    virtual void drop() = 0;
    // Whether the peer may send function to unit_id; a request it may not send is answered
    // with exception 1 and counted as one.
    virtual bool permitted(uint8_t /*function*/, uint8_t /*unit_id*/) const { return true; }
    // Serializes the frame into the messenger's write buffer.
    void serialize_response();
    void cancel_timer();

    const CModbusServices& _services;
    std::unique_ptr<CModbusAdu> _adu;

private:
    // Reads the leaves planned, here or on the CDS thread when the store is locked.
    void read_planned();
    // Counts the exception and answers with it.
    void fail(modbus_err_t code);
    // The steps after the leaves were read.
    void values_read();
    void finish();
    // Hands cmd to the CDS thread with the response timer.
    void submit(std::unique_ptr<CThreadCommand> cmd);

    const CModbusFunction* _function = nullptr;
    CModbusRequest _request;
    // The request's write is stored and its answer is being read (function 23).
    bool _rereading = false;
    std::shared_ptr<CIoTimer> _timer;
};
