#pragma once
// The handler of one Modbus request, from its checks to its answer. It lives as long as
// its protocol handler keeps it (until the next request or the connection's end); the CDS
// thread holds it only weakly, so an answer for a connection that went away is dropped.
#include "cds/cds_leaf.h"
#include "modbus/protocol/modbus_protocol_handler.h"
#include "threads/commands/thread_response_handler.h"

#include <functional>
#include <memory>

class CModbusDeviceConfig;
class CIoTimer;
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
    // Queues a read of leaves under the device's path with the request's response timer;
    // a range that names no leaf is answered with code 2 instead.
    void fetch(cds_leaf_set_t leaves);
    // The first steps of every answer from the CDS thread: a time-out is answered with code
    // 11, a failed command with code 4. True when the command's result can be used (its
    // timer is still with it).
    bool usable(CThreadCommand& cmd, bool timed_out);
    // The second half of a write: merge computes the leaves to write from the values read
    // (a generic_err or nothing to write is answered with code 2); they are written with
    // the timer taken over from the read.
    void write(CThreadCdsGetLeaves& read, const std::function<cds_leaf_set_t()>& merge);
    // A write has been served: answer it (single writes echo the request, multiple writes
    // keep start and quantity).
    void write_done(CThreadCdsSetLeaves& cmd, bool timed_out, uint8_t single_function);
    // The response timer, back from a served command, stopped.
    static void stop_timer(std::shared_ptr<CIoTimer> timer);
    void err(modbus_err_t code) { _prot.err(code); }

    CModbusProtocolHandler& _prot;
    CModbusPdu& _pdu;
    CModbusDeviceConfig& _device;
};
