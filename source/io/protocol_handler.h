#pragma once
// What a transport asks of the code that interprets its bytes, and what it is told to do.
// The handler never calls its transport: the transport hands it bytes and acts on the
// answer.
//
//   received(begin, end)  all bytes received and not consumed yet (a serial line: one frame)
//   -> READ   consumed some (or none) of them; read more, unless bytes are left and some were
//             consumed: then call received() again with the rest
//   -> SEND   consumed some; write data/size (valid until the next call), then go on with the
//             bytes left, or read more
//   -> WAIT   consumed some; an answer is on its way: call resume() once the waker (set by
//             the transport) is called, and nothing else before
//   -> CLOSE  end the connection
//
// One request is answered at a time; resume() answers like received(). Every call runs on
// the I/O thread, and so does the waker.
#include "util/iobuf.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

class CProtocolHandler {
public:
    struct action_t {
        enum kind_t : uint8_t { READ, SEND, WAIT, CLOSE };
        kind_t kind = READ;
        // Leading bytes of the input taken (a whole frame, or bytes dropped).
        size_t consumed = 0;
        // The bytes taken held a whole request: the peer is not idle.
        bool request = false;
        // SEND: what to write.
        const uint8_t* data = nullptr;
        size_t size = 0;
    };

    CProtocolHandler() = default;
    CProtocolHandler(const CProtocolHandler&) = delete;
    CProtocolHandler& operator=(const CProtocolHandler&) = delete;
    virtual ~CProtocolHandler() = default;

    virtual action_t received(iobuf_const_iter_t begin, iobuf_const_iter_t end) = 0;
    // After WAIT, once the waker was called.
    virtual action_t resume() = 0;
    // How the handler tells its transport that resume() has an answer; set before the first
    // received().
    void set_waker(std::function<void()> waker) { _waker = std::move(waker); }
    // A secure transport's peer identity (for TLS, the text its listener reads from the client
    // certificate; empty when the certificate has none), before the first received().
    virtual void set_peer_identity(const std::string& /*identity*/) {}

protected:
    void wake() const {
        if (_waker)
            _waker();
    }

private:
    std::function<void()> _waker;
};

// Makes the handler of each new connection.
using handler_factory_t = std::function<std::unique_ptr<CProtocolHandler>()>;
