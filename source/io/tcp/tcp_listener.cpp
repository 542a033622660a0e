#include "io/tcp/tcp_listener.h"

#include "io/io_manager.h"
#include "io/protocol_handler.h"
#include "io/tcp/tcp_connection.h"
#include "util/log.h"
#include "util/transport_counters.h"

#include <boost/asio/ip/v6_only.hpp>

#include <cassert>
#include <fcntl.h>
#include <unistd.h>

std::shared_ptr<CTcpListener> CTcpListener::create(CIoManager& manager,
                                                   handler_factory_t make_handler, uint16_t port,
                                                   const CTcpListenerOptions& options) {
    std::shared_ptr<CTcpListener> listener(
        new CTcpListener(manager, std::move(make_handler), port, options));
    listener->accept();
    return listener;
}

CTcpListener::CTcpListener(CIoManager& manager, handler_factory_t make_handler, uint16_t port,
                           const CTcpListenerOptions& options)
    : CIoActor(manager), _acceptor(manager.service()), _make_handler(std::move(make_handler)),
      _options(options), _retry(manager.service()) {
    LOG_STACK();
    assert(_make_handler);
    assert(_options.max_connections > 0);
    const std::string where = _options.bind_address.empty() ? "" : " on " + _options.bind_address;
    LOG_INFO(SS_TCP_IO, 2, "Listening for incoming %s connections on port %u%s",
             _options.tls ? "TLS" : "TCP", port, where.c_str());
    try {
        bind(port);
    } catch (const boost::system::system_error& e) {
        LOG_ERR(SS_TCP_IO, 0, "While binding to TCP port %u%s: %s", port, where.c_str(), e.what());
        throw;
    }
    reserve_spare();
}

void CTcpListener::bind(uint16_t port) {
    using boost::asio::ip::tcp;
    if (_options.bind_address.empty()) {
        boost::system::error_code v6_error;
        _acceptor.open(tcp::v6(), v6_error);
        if (!v6_error) {
            _acceptor.set_option(boost::asio::ip::v6_only(false));
            _acceptor.set_option(tcp::acceptor::reuse_address(true));
            _acceptor.bind(tcp::endpoint(tcp::v6(), port));
        } else {
            _acceptor.open(tcp::v4());
            _acceptor.set_option(tcp::acceptor::reuse_address(true));
            _acceptor.bind(tcp::endpoint(tcp::v4(), port));
        }
    } else {
        const tcp::endpoint endpoint(boost::asio::ip::make_address(_options.bind_address), port);
        _acceptor.open(endpoint.protocol());
        if (endpoint.address().is_v6() && endpoint.address().is_unspecified())
            _acceptor.set_option(boost::asio::ip::v6_only(false));
        _acceptor.set_option(tcp::acceptor::reuse_address(true));
        _acceptor.bind(endpoint);
    }
    _acceptor.listen();
    // shed() accepts synchronously and must not wait when the peer is gone.
    _acceptor.non_blocking(true);
}

CTcpListener::~CTcpListener() {
    boost::system::error_code ignored;
    _acceptor.close(ignored);
    release_spare();
}

uint16_t CTcpListener::port() const {
    boost::system::error_code ec;
    return _acceptor.local_endpoint(ec).port();
}

void CTcpListener::close() {
    assert(_make_handler);
    _retry.cancel();
    release_spare();
    if (_acceptor.is_open())
        _acceptor.close();
}

void CTcpListener::accept() {
    assert(_make_handler);
    auto connection = CTcpConnection::create(get_manager(), _make_handler, _options.tls);
    auto self = std::static_pointer_cast<CTcpListener>(shared_from_this());
    _acceptor.async_accept(connection->socket(),
                           [self, connection](const boost::system::error_code& error) {
                               self->handle_accept(error, connection);
                           });
}

void CTcpListener::handle_accept(const boost::system::error_code& error,
                                 const std::shared_ptr<CTcpConnection>& connection) {
    LOG_STACK();
    if (error == boost::asio::error::operation_aborted || !_acceptor.is_open())
        return;
    if (!error) {
        report_end(_no_descriptors, "for want of file descriptors");
        admit(connection);
        accept();
        return;
    }
    // A peer left in the backlog keeps the socket readable, so accepting again at once would
    // spin: the spare descriptor takes it off the backlog.
    if (error == boost::asio::error::no_descriptors || error.value() == ENFILE) {
        const shed_t shed_result = shed();
        if (shed_result == shed_t::none_waiting) {
            accept_when_waiting();
            return;
        }
        if (_no_descriptors.hit())
            LOG_WARN(SS_TCP_IO, 0,
                     "Out of file descriptors (%s): refusing TCP connections until some are free",
                     error.message().c_str());
        if (shed_result == shed_t::refused)
            accept();
        else
            retry_later();
        return;
    }
    LOG_ERR(SS_TCP_IO, 1, "%s", error.message().c_str());
    if (error == boost::asio::error::no_memory || error == boost::asio::error::no_buffer_space)
        retry_later();
    else
        accept();
}

void CTcpListener::admit(const std::shared_ptr<CTcpConnection>& connection) {
    boost::system::error_code ec;
    const auto peer = connection->socket().remote_endpoint(ec);
    if (ec) {
        // Gone before it was served.
        refuse(connection);
        return;
    }
    if (!_options.allow.allows(peer.address())) {
        if (_not_allowed.hit())
            LOG_WARN(SS_TCP_IO, 0,
                     "Refused a TCP connection from '%s': not in the allow list (%s); further "
                     "refusals are counted until an allowed client connects",
                     connection->peer_name().c_str(), _options.allow.str().c_str());
        refuse(connection);
        return;
    }
    report_end(_not_allowed, "from outside the allow list");
    if (_connections.size() < _options.max_connections) {
        report_evictions_end();
    } else if (!evict_for(*connection)) {
        if (_over_limit.hit())
            LOG_WARN(SS_TCP_IO, 0,
                     "Refused a TCP connection from '%s': %u connections are open, the most "
                     "allowed; further refusals are counted until one is accepted",
                     connection->peer_name().c_str(), open_connections());
        refuse(connection);
        return;
    }
    report_end(_over_limit, "at the connection limit");
    track(connection);
    get_manager().add(connection);
    connection->serve(_options);
}

void CTcpListener::track(const std::shared_ptr<CTcpConnection>& connection) {
    const auto entry = _connections.insert(_connections.end(), connection);
    std::weak_ptr<CTcpListener> weak = std::static_pointer_cast<CTcpListener>(shared_from_this());
    // Runs inside the connection's close, also when the listener evicts it: by then the
    // listener has chosen its victim and no longer walks the list.
    connection->set_on_close([weak, entry] {
        if (auto listener = weak.lock())
            listener->_connections.erase(entry);
    });
    if (_options.tls)
        connection->set_on_handshake(
            [weak, peer = connection->peer_name()](const std::string& failure) {
                if (auto listener = weak.lock())
                    listener->handshake_done(peer, failure);
            });
}

bool CTcpListener::evict_for(const CTcpConnection& newcomer) {
    if (_options.evict_after_s == 0)
        return false;
    const auto now = std::chrono::steady_clock::now();
    if (now < _no_victim_before)
        return false;
    const auto victim = evictable(now);
    if (!victim)
        return false;
    if (_options.counters != nullptr)
        ++_options.counters->evicted;
    const long long silent =
        std::chrono::duration_cast<std::chrono::seconds>(now - victim->last_request()).count();
    const std::string evicted = victim->peer_name();
    if (_evicted.hit())
        LOG_WARN(SS_TCP_IO, 0,
                 "Closed the TCP connection from '%s', without a request for %lld s, to admit "
                 "'%s': %u connections are open, the most allowed; further evictions are "
                 "counted until a client is admitted without one",
                 evicted.c_str(), silent, newcomer.peer_name().c_str(), open_connections());
    else
        LOG_INFO(SS_TCP_IO, 2,
                 "Closed the TCP connection from '%s', without a request for %lld s, to admit "
                 "'%s'",
                 evicted.c_str(), silent, newcomer.peer_name().c_str());
    // Through the manager, as any other end of a connection; its close takes it off the list.
    victim->remove();
    return true;
}

std::shared_ptr<CTcpConnection> CTcpListener::evictable(std::chrono::steady_clock::time_point now) {
    const std::chrono::seconds after(_options.evict_after_s);
    std::shared_ptr<CTcpConnection> oldest;
    auto earliest = std::chrono::steady_clock::time_point::max();
    for (const auto& entry : _connections) {
        const auto connection = entry.lock();
        if (!connection)
            continue;
        const auto stamp = connection->last_request();
        earliest = std::min(earliest, stamp);
        if (connection->waiting_for_client() && now - stamp >= after &&
            (!oldest || stamp < oldest->last_request()))
            oldest = connection;
    }
    if (!oldest && earliest != std::chrono::steady_clock::time_point::max())
        _no_victim_before = earliest + after;
    return oldest;
}

void CTcpListener::report_evictions_end() {
    const uint64_t n = _evicted.end();
    if (n > 1)
        LOG_INFO(SS_TCP_IO, 0,
                 "Admitting TCP connections without evicting again; %llu were closed to make "
                 "room",
                 static_cast<unsigned long long>(n));
}

void CTcpListener::handshake_done(const std::string& peer, const std::string& failure) {
    if (failure.empty()) {
        const uint64_t n = _bad_handshakes.end();
        if (n > 1)
            LOG_INFO(SS_TCP_IO, 0, "A TLS handshake succeeded again; %llu had failed before",
                     static_cast<unsigned long long>(n));
        return;
    }
    // A scanner or a misconfigured master may try many times a second.
    if (_bad_handshakes.hit())
        LOG_WARN(SS_TCP_IO, 0,
                 "TLS handshake with '%s' failed: %s; further failures are counted until one "
                 "succeeds (each is logged at level 1)",
                 peer.c_str(), failure.c_str());
    else
        LOG_WARN(SS_TCP_IO, 1, "TLS handshake with '%s' failed: %s", peer.c_str(), failure.c_str());
}

void CTcpListener::report_end(CBurstCounter& burst, const char* what) {
    const uint64_t n = burst.end();
    if (n > 1)
        LOG_INFO(SS_TCP_IO, 0, "Accepting TCP connections again; %llu were refused %s",
                 static_cast<unsigned long long>(n), what);
}

void CTcpListener::refuse(const std::shared_ptr<CTcpConnection>& connection) {
    try {
        connection->close();
    } catch (const std::exception& e) {
        LOG_DEBUG(SS_TCP_IO, 4, "%s", e.what());
    }
}

CTcpListener::shed_t CTcpListener::shed() {
    if (_spare < 0)
        return shed_t::failed;
    release_spare();
    boost::asio::ip::tcp::socket peer(get_io_service());
    boost::system::error_code ec;
    _acceptor.accept(peer, ec);
    boost::system::error_code ignored;
    peer.close(ignored);
    reserve_spare();
    if (ec == boost::asio::error::would_block || ec == boost::asio::error::try_again)
        return shed_t::none_waiting;
    // Another thread may have taken the descriptor first: then wait for one to free up.
    if (ec == boost::asio::error::no_descriptors || ec.value() == ENFILE)
        return shed_t::failed;
    // Closed, or gone by itself (aborted): either way it is off the backlog.
    return shed_t::refused;
}

void CTcpListener::accept_when_waiting() {
    auto self = std::static_pointer_cast<CTcpListener>(shared_from_this());
    _acceptor.async_wait(boost::asio::ip::tcp::acceptor::wait_read,
                         [self](const boost::system::error_code& e) {
                             if (e || !self->_acceptor.is_open())
                                 return;
                             self->accept();
                         });
}

void CTcpListener::retry_later() {
    auto self = std::static_pointer_cast<CTcpListener>(shared_from_this());
    _retry.expires_after(std::chrono::milliseconds(100));
    _retry.async_wait([self](const boost::system::error_code& e) {
        if (e || !self->_acceptor.is_open())
            return;
        self->reserve_spare();
        self->accept();
    });
}

void CTcpListener::reserve_spare() {
    if (_spare < 0)
        _spare = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

void CTcpListener::release_spare() {
    if (_spare >= 0)
        ::close(_spare);
    _spare = -1;
}
