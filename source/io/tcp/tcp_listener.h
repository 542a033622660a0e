#pragma once
// Accepts Modbus TCP connections on one port, IPv6 and IPv4 alike (a dual-stack wildcard
// socket; plain IPv4 where the host has no IPv6). Each accepted connection gets its own
// protocol handler cloned from the listener's prototype. There is no connection limit.
#include "io/io_actor.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <cstdint>

class CProtocolHandler;
class CTcpConnection;

class CTcpListener : public CIoActor {
public:
    // Throws boost::system::system_error (after logging it) when the port cannot be bound.
    static std::shared_ptr<CTcpListener> create(CIoManager& manager,
                                                const CProtocolHandler& prototype, uint16_t port);
    ~CTcpListener() override;
    void close() override;
    // The port actually bound (useful with port 0).
    uint16_t port() const;

private:
    CTcpListener(CIoManager& manager, const CProtocolHandler& prototype, uint16_t port);
    void accept();
    void handle_accept(const boost::system::error_code& error,
                       const std::shared_ptr<CTcpConnection>& connection);

    boost::asio::ip::tcp::acceptor _acceptor;
    std::shared_ptr<CProtocolHandler> _prot;
    boost::asio::steady_timer _retry; // backs off when the process is out of descriptors
};
