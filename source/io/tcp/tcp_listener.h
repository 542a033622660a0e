#pragma once
// Accepts Modbus TCP connections on one port: on every address, IPv6 and IPv4 alike (a
// dual-stack wildcard socket; plain IPv4 where the host has no IPv6), or on one address. Each
// accepted connection gets its own protocol handler cloned from the listener's prototype.
//
// A peer outside the allow list, and any peer while the most connections allowed are open,
// is accepted and closed at once. So is a peer that comes while the process is out of file
// descriptors: the listener keeps one spare descriptor and gives it up for the moment it
// takes to accept and close the peer, which drains the backlog instead of spinning on it.
// Each of these refusals is logged once per burst, with a count when the burst ends. So are
// failed TLS handshakes, at level 0; at level 1 every one of them is logged.
#include "io/io_actor.h"
#include "io/tcp/burst_counter.h"
#include "io/tcp/tcp_listener_options.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <cstdint>

class CProtocolHandler;
class CTcpConnection;

class CTcpListener : public CIoActor {
public:
    // Throws boost::system::system_error (after logging it) when the port cannot be bound.
    static std::shared_ptr<CTcpListener> create(CIoManager& manager,
                                                const CProtocolHandler& prototype, uint16_t port,
                                                const CTcpListenerOptions& options = {});
    ~CTcpListener() override;
    void close() override;
    // The port actually bound (useful with port 0).
    uint16_t port() const;
    // Connections accepted and not yet closed.
    uint32_t open_connections() const { return _open; }

private:
    CTcpListener(CIoManager& manager, const CProtocolHandler& prototype, uint16_t port,
                 const CTcpListenerOptions& options);
    void bind(uint16_t port);
    void accept();
    void handle_accept(const boost::system::error_code& error,
                       const std::shared_ptr<CTcpConnection>& connection);
    void admit(const std::shared_ptr<CTcpConnection>& connection);
    // Tells how many refusals a burst had once it is over; its first was told already.
    static void report_end(CBurstCounter& burst, const char* what);
    // Logs how a TLS handshake with peer ended (failure empty: it succeeded).
    void handshake_done(const std::string& peer, const std::string& failure);
    // Closes a peer that may not be served.
    static void refuse(const std::shared_ptr<CTcpConnection>& connection);
    enum class shed_t { refused, none_waiting, failed };
    // Accepts the next peer with the spare descriptor and closes it.
    shed_t shed();
    // Accepts once a peer waits. Out of descriptors, accept fails at once whether a peer
    // waits or not, so it must not be tried before one does.
    void accept_when_waiting();
    // Accepts again after a pause, with the spare descriptor back if it was lost.
    void retry_later();
    void reserve_spare();
    void release_spare();

    boost::asio::ip::tcp::acceptor _acceptor;
    std::shared_ptr<CProtocolHandler> _prot;
    CTcpListenerOptions _options;
    boost::asio::steady_timer _retry; // backs off when a spare descriptor did not help
    int _spare = -1;
    uint32_t _open = 0;
    CBurstCounter _over_limit;
    CBurstCounter _not_allowed;
    CBurstCounter _no_descriptors;
    CBurstCounter _bad_handshakes;
};
