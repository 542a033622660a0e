#pragma once
// Accepts Modbus TCP connections on one port: on every address, IPv6 and IPv4 alike (a
// dual-stack wildcard socket; plain IPv4 where the host has no IPv6), or on one address. Each
// connection served gets its own protocol handler from the listener's factory.
//
// A peer outside the allow list is accepted and closed at once, and so is one that comes while
// the process is out of file descriptors: the listener keeps one spare descriptor and gives it
// up for the moment it takes to accept and close the peer, which drains the backlog instead of
// spinning on it. A peer that comes while the most connections allowed are open takes the
// place of the one that has waited longest for its client's next request, if that was at
// least evict_after_s ago, so that clients who hold connections and say nothing cannot keep
// others out; a connection being served is never evicted. With none to evict, the peer is
// refused too.
//
// Each kind of refusal is logged once per burst, with a count when the burst ends. So are
// evictions (the burst ends when a peer is admitted without one) and failed TLS handshakes, at
// level 0; at level 1 every failed handshake is logged, at level 2 every eviction.
#include "io/io_actor.h"
#include "io/protocol_handler.h"
#include "io/tcp/burst_counter.h"
#include "io/tcp/tcp_listener_options.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>

class CTcpConnection;

class CTcpListener : public CIoActor {
public:
    // Throws boost::system::system_error (after logging it) when the port cannot be bound.
    static std::shared_ptr<CTcpListener> create(CIoManager& manager, handler_factory_t make_handler,
                                                uint16_t port,
                                                const CTcpListenerOptions& options = {});
    ~CTcpListener() override;
    void close() override;
    // The port actually bound (useful with port 0).
    uint16_t port() const;
    // Connections accepted and not yet closed.
    uint32_t open_connections() const { return static_cast<uint32_t>(_connections.size()); }

private:
    CTcpListener(CIoManager& manager, handler_factory_t make_handler, uint16_t port,
                 const CTcpListenerOptions& options);
    void bind(uint16_t port);
    void accept();
    void handle_accept(const boost::system::error_code& error,
                       const std::shared_ptr<CTcpConnection>& connection);
    void admit(const std::shared_ptr<CTcpConnection>& connection);
    // Keeps track of an admitted connection until it closes.
    void track(const std::shared_ptr<CTcpConnection>& connection);
    // At the limit: closes the connection that has waited longest for a request, if long
    // enough, to make room for newcomer. False when none may go.
    bool evict_for(const CTcpConnection& newcomer);
    // Of the connections waiting for their clients, the one whose last request is oldest,
    // if that is at least evict_after_s before now; else null, after setting
    // _no_victim_before to the earliest any connection can be that old.
    std::shared_ptr<CTcpConnection> evictable(std::chrono::steady_clock::time_point now);
    // Tells how many connections a burst of evictions closed once a peer is admitted without.
    void report_evictions_end();
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
    handler_factory_t _make_handler;
    CTcpListenerOptions _options;
    boost::asio::steady_timer _retry; // backs off when a spare descriptor did not help
    int _spare = -1;
    // The open connections, each removed by its own close.
    std::list<std::weak_ptr<CTcpConnection>> _connections;
    // Until then no connection can have waited long enough to be evicted: last-request stamps
    // only grow, and a newcomer's starts at its accept. Spares a flood of newcomers at a limit
    // of busy connections a scan each.
    std::chrono::steady_clock::time_point _no_victim_before;
    CBurstCounter _evicted;
    CBurstCounter _over_limit;
    CBurstCounter _not_allowed;
    CBurstCounter _no_descriptors;
    CBurstCounter _bad_handshakes;
};
