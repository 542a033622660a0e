#pragma once
// An actor that owns one byte stream and the protocol handler that interprets its bytes. The
// handler tells the messenger what to do with each piece of input (CProtocolHandler); it never
// calls the messenger, but for waking it when an answer it waited for is ready.
#include "io/io_actor.h"
#include "io/protocol_handler.h"

#include <memory>

class CIoMessenger : public CIoActor {
public:
    explicit CIoMessenger(CIoManager& manager) : CIoActor(manager) {}
    ~CIoMessenger() override;

    // Null until the messenger has its handler.
    CProtocolHandler* protocol() const { return _prot.get(); }

protected:
    // Takes the handler and points its waker at resumed(), weakly: a messenger that is gone
    // is not woken. The messenger must be owned by a shared pointer.
    void attach_handler(std::unique_ptr<CProtocolHandler> handler);
    // The handler has the answer it waited for: call its resume() and act on it.
    virtual void resumed() = 0;

    std::unique_ptr<CProtocolHandler> _prot;
};
