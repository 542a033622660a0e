#pragma once
// What a transport (messenger) needs of the code that interprets its bytes. Every
// connection owns one handler, cloned from the prototype its listener or the server core
// was given.
#include "util/transport_counters.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

class CIoMessenger;

class CProtocolHandler {
public:
    explicit CProtocolHandler(CIoMessenger* messenger) : _messenger(messenger) {}
    CProtocolHandler(const CProtocolHandler&) = delete;
    CProtocolHandler& operator=(const CProtocolHandler&) = delete;
    virtual ~CProtocolHandler() = default;

    // The connection is up and starts reading (a listener makes its next connection, and
    // with it the handler, before anyone connects).
    virtual void started() {}
    // Called after every read; true when the handler acted on the receive buffer (it will
    // answer, and nothing more is read until then).
    virtual bool parse() = 0;
    // Whether an address byte (a serial slave address) belongs to this handler.
    virtual bool validate(unsigned char) { return true; }
    // The response time-out, in milliseconds.
    virtual void set_timeout(unsigned int) {}
    // Makes the transport's frame object ahead of the first byte, where that matters.
    virtual void create_adu() {}
    // For transports whose frames carry no length (RTU): the whole length of the frame that
    // starts with the n bytes given (n >= 2), 0 while they do not tell yet, or no_frame when
    // no request starts so.
    static constexpr size_t no_frame = static_cast<size_t>(-1);
    virtual size_t frame_length(const uint8_t* /*frame*/, size_t /*n*/) const { return no_frame; }
    virtual bool parse_request() = 0;
    // The peer's identity as a secure transport established it (for TLS, the text its
    // listener reads from the client certificate; empty when the certificate has none).
    // Called once, before started(); never on a plain transport.
    virtual void set_peer_identity(const std::string& /*identity*/) {}
    // The counters of the transport this handler serves, for the framing to count into;
    // null when nobody counts.
    virtual CTransportCounters* counters() const { return nullptr; }
    // A new handler of the same kind bound to messenger (null for a prototype).
    virtual std::shared_ptr<CProtocolHandler> clone(CIoMessenger* messenger) const = 0;

    CIoMessenger* messenger() const { return _messenger; }

protected:
    CIoMessenger* _messenger;
};
