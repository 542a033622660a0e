#pragma once
// Serves requests that come one per datagram on a UDP port: on every address, IPv6 and IPv4
// alike (a dual-stack wildcard socket; plain IPv4 where the host has no IPv6), or on one
// address. There is no connection: each datagram goes to a free protocol handler as a whole
// input, and an answer the handler sends goes back to the datagram's sender. A handler that
// waits for its answer keeps its sender; the next datagram goes to another handler, made by the
// factory when none is free, up to max_waiting of them; while that many wait, nothing is read
// and datagrams queue in the socket (the system drops what does not fit).
//
// A datagram from outside the allow list, or over its sender's rate, is dropped before any
// handler sees it and counted as refused; the first of a burst of refusals is logged, the rest
// are counted until a datagram is served again. An answer the socket cannot take at once is
// dropped, as the network may drop any datagram: the client asks again.
#include "io/io_actor.h"
#include "io/protocol_handler.h"
#include "io/tcp/burst_counter.h"
#include "io/udp/udp_listener_options.h"
#include "io/udp/udp_rate_limit.h"

#include <boost/asio/ip/udp.hpp>

#include <cstdint>
#include <memory>
#include <vector>

class CUdpListener : public CIoActor {
public:
    // The largest datagram read whole; a longer one arrives cut short.
    static constexpr size_t max_datagram = 65536;

    // Throws boost::system::system_error (after logging it) when the port cannot be bound.
    static std::shared_ptr<CUdpListener> create(CIoManager& manager, handler_factory_t make_handler,
                                                uint16_t port,
                                                const CUdpListenerOptions& options = {});
    ~CUdpListener() override;
    void close() override;
    // The port actually bound (useful with port 0).
    uint16_t port() const;

private:
    struct slot_t {
        std::unique_ptr<CProtocolHandler> handler;
        boost::asio::ip::udp::endpoint peer;
        bool waiting = false;
    };

    CUdpListener(CIoManager& manager, handler_factory_t make_handler, uint16_t port,
                 const CUdpListenerOptions& options);
    void bind(uint16_t port);
    // Reads the next datagram, unless one is being read or every handler waits.
    void receive();
    void handle_receive(const boost::system::error_code& error, size_t size);
    void serve(size_t size);
    // Whether the sender may be served; logs and counts it when not.
    bool admit(const boost::asio::ip::address& peer);
    // A handler that waits for nothing, made if there is room for one; null when all wait.
    slot_t* free_slot();
    void act(slot_t& slot, const CProtocolHandler::action_t& action);
    void resumed(slot_t& slot);
    void refused(CBurstCounter& burst, const char* why, const boost::asio::ip::address& peer);

    boost::asio::ip::udp::socket _socket;
    handler_factory_t _make_handler;
    CUdpListenerOptions _options;
    CUdpRateLimit _rate;
    iobuf_t _rbuf;
    boost::asio::ip::udp::endpoint _from;
    std::vector<std::unique_ptr<slot_t>> _slots;
    bool _receiving = false;
    CBurstCounter _not_allowed;
    CBurstCounter _over_rate;
};
