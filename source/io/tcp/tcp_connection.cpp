#include "io/tcp/tcp_connection.h"

#include "io/protocol_handler.h"
#include "util/log.h"

#include <boost/asio/write.hpp>

#include <cassert>

std::shared_ptr<CTcpConnection>
CTcpConnection::create(CIoManager& manager, handler_factory_t make_handler,
                       const std::shared_ptr<CTlsEngine>& tls) {
    return std::shared_ptr<CTcpConnection>(
        new CTcpConnection(manager, std::move(make_handler), tls));
}

CTcpConnection::CTcpConnection(CIoManager& manager, handler_factory_t make_handler,
                               const std::shared_ptr<CTlsEngine>& tls)
    : CIoMessenger(manager), _make_handler(std::move(make_handler)), _sock(get_io_service()),
      _tls_engine(tls), _idle(get_io_service()), _frame_timer(get_io_service()) {
    if (_tls_engine)
        _tls = _tls_engine->session(_sock);
}

CTcpConnection::~CTcpConnection() {
    try {
        close();
    } catch (const std::exception& e) {
        LOG_DEBUG(SS_TCP_IO, 4, "%s", e.what());
    }
}

std::shared_ptr<CTcpConnection> CTcpConnection::self() {
    return std::static_pointer_cast<CTcpConnection>(shared_from_this());
}

std::string CTcpConnection::peer_name() const {
    boost::system::error_code ec;
    const auto peer = _sock.remote_endpoint(ec);
    if (ec)
        return "unknown";
    const auto address = peer.address();
    if (address.is_v6() && address.to_v6().is_v4_mapped())
        return boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, address.to_v6())
            .to_string();
    return address.to_string();
}

void CTcpConnection::watch_idle(std::chrono::seconds timeout) {
    _idle_timeout = timeout;
    _last_heard = std::chrono::steady_clock::now();
    if (timeout.count() > 0)
        wait_idle(_last_heard + timeout);
}

void CTcpConnection::serve(const CTcpListenerOptions& options) {
    _stamp_requests = options.evict_after_s > 0;
    _frame_timeout = std::chrono::milliseconds(options.frame_timeout_ms);
    _last_request = std::chrono::steady_clock::now();
    if (!_tls) {
        watch_idle(std::chrono::seconds(options.idle_timeout_s));
        start();
        return;
    }
    _serve_idle = std::chrono::seconds(options.idle_timeout_s);
    _identity_oid = options.identity_oid;
    _handshake_timeout = std::chrono::seconds(options.handshake_timeout_s);
    // The idle timer is free until the handshake is over: it bounds the handshake.
    std::weak_ptr<CTcpConnection> weak = self();
    _idle.expires_after(_handshake_timeout);
    _idle.async_wait([weak](const boost::system::error_code& error) {
        if (auto me = weak.lock())
            me->handshake_timed_out(error);
    });
    auto me = self();
    _tls->async_handshake(
        [me](const boost::system::error_code& error) { me->handle_handshake(error); });
}

void CTcpConnection::handshake_timed_out(const boost::system::error_code& error) {
    LOG_STACK();
    if (error || _handshake_done || !_sock.is_open())
        return;
    handshake_failed("not completed within " + std::to_string(_handshake_timeout.count()) + " s");
}

void CTcpConnection::handshake_failed(const std::string& reason) {
    if (_on_handshake)
        _on_handshake(reason);
    remove();
}

void CTcpConnection::handle_handshake(const boost::system::error_code& error) {
    LOG_STACK();
    if (!_sock.is_open())
        return; // timed out or closed, and told so already
    if (error) {
        std::string reason = error.message();
        const std::string refused = _tls->verify_failure();
        if (!refused.empty())
            reason += " (" + refused + ")";
        handshake_failed(reason);
        return;
    }
    _handshake_done = true;
    if (_on_handshake)
        _on_handshake(std::string());
    _idle.cancel();
    watch_idle(_serve_idle);
    start();
    if (!_identity_oid.empty()) {
        const auto identity = _tls->peer_extension(_identity_oid);
        LOG_INFO(SS_TCP_IO, 2, "TLS client '%s' identifies as '%s'", peer_name().c_str(),
                 identity ? identity->c_str() : "");
        _prot->set_peer_identity(identity ? *identity : std::string());
    }
}

void CTcpConnection::wait_idle(std::chrono::steady_clock::time_point until) {
    // Weak: the timer must not keep a dropped connection alive.
    std::weak_ptr<CTcpConnection> weak = self();
    _idle.expires_at(until);
    _idle.async_wait([weak](const boost::system::error_code& error) {
        if (auto me = weak.lock())
            me->handle_idle(error);
    });
}

void CTcpConnection::handle_idle(const boost::system::error_code& error) {
    LOG_STACK();
    if (error || !_sock.is_open())
        return;
    const auto now = std::chrono::steady_clock::now();
    // While an answer is being made the client is not idle, however long the store takes.
    if (!_reading) {
        wait_idle(now + _idle_timeout);
        return;
    }
    if (now - _last_heard < _idle_timeout) {
        wait_idle(_last_heard + _idle_timeout);
        return;
    }
    LOG_INFO(SS_TCP_IO, 2, "Closing the connection from '%s': nothing received for %lld s",
             peer_name().c_str(), static_cast<long long>(_idle_timeout.count()));
    remove();
}

void CTcpConnection::watch_frame(bool moved) {
    if (_offset == 0) {
        _partial = false;
        return;
    }
    if (_partial && !moved)
        return;
    _partial = true;
    _partial_since = std::chrono::steady_clock::now();
    // An armed timer finds the new deadline when it expires.
    if (!_frame_timer_armed)
        arm_frame_timer(_partial_since + _frame_timeout);
}

void CTcpConnection::arm_frame_timer(std::chrono::steady_clock::time_point deadline) {
    _frame_timer_armed = true;
    std::weak_ptr<CTcpConnection> weak = self();
    _frame_timer.expires_at(deadline);
    _frame_timer.async_wait([weak](const boost::system::error_code& error) {
        if (auto me = weak.lock())
            me->handle_frame_timer(error);
    });
}

void CTcpConnection::handle_frame_timer(const boost::system::error_code& error) {
    LOG_STACK();
    _frame_timer_armed = false;
    if (error || !_sock.is_open() || !_partial)
        return;
    const auto now = std::chrono::steady_clock::now();
    // Bytes waiting behind a request being answered are not late: their clock starts again.
    if (!_reading)
        _partial_since = now;
    const auto deadline = _partial_since + _frame_timeout;
    if (now < deadline) {
        arm_frame_timer(deadline);
        return;
    }
    LOG_INFO(SS_TCP_IO, 2,
             "Closing the connection from '%s': %zu bytes received made no request in %lld ms",
             peer_name().c_str(), _offset, static_cast<long long>(_frame_timeout.count()));
    remove();
}

bool CTcpConnection::waiting_for_client() const {
    return _sock.is_open() && (_reading || (_tls && !_handshake_done));
}

void CTcpConnection::close() {
    if (!_sock.is_open())
        return;
    LOG_INFO(SS_TCP_IO, 2, "Closing socket to '%s'", peer_name().c_str());
    _idle.cancel();
    _frame_timer.cancel();
    boost::system::error_code shutdown_error;
    _sock.shutdown(boost::asio::ip::tcp::socket::shutdown_both, shutdown_error);
    boost::system::error_code close_error;
    _sock.close(close_error);
    if (_on_close) {
        const auto on_close = std::move(_on_close);
        _on_close = nullptr;
        on_close();
    }
    // A peer that reset the connection makes shutdown fail; the socket is closed anyway.
    if (shutdown_error && shutdown_error != boost::asio::error::not_connected)
        throw boost::system::system_error(shutdown_error, "shutdown");
    if (close_error)
        throw boost::system::system_error(close_error, "close");
}

void CTcpConnection::start() {
    // Sends that would block return at once (see write); asynchronous ones are unaffected.
    boost::system::error_code error;
    _sock.non_blocking(true, error);
    attach_handler(_make_handler());
    _rbuf.assign(buffer_step, 0);
    _offset = 0;
    read_more();
}

void CTcpConnection::read_more() {
    assert(_sock.is_open());
    if (_offset == _rbuf.size())
        _rbuf.resize(_offset + buffer_step);
    auto me = self();
    _reading = true;
    const auto buffer = boost::asio::buffer(_rbuf.data() + _offset, _rbuf.size() - _offset);
    const auto done = [me](const boost::system::error_code& error, size_t count) {
        me->handle_read(error, count);
    };
    if (_tls)
        _tls->async_read_some(buffer, done);
    else
        _sock.async_read_some(buffer, done);
}

void CTcpConnection::handle_read(const boost::system::error_code& error, size_t count) {
    LOG_STACK();
    _reading = false;
    if (error) {
        if (error != boost::asio::error::operation_aborted)
            remove();
        return;
    }
    if (_idle_timeout.count() > 0)
        _last_heard = std::chrono::steady_clock::now();
    _offset += count;
    assert(_offset <= _rbuf.size());
    LOG_DUMP(SS_TCP_IO, 6, _rbuf.data() + _offset - count, count, "Received");
    process();
}

void CTcpConnection::process() {
    for (;;) {
        const auto begin = _rbuf.cbegin();
        const CProtocolHandler::action_t action =
            _prot->received(begin, begin + static_cast<std::ptrdiff_t>(_offset));
        if (!act(action))
            return;
    }
}

bool CTcpConnection::act(const CProtocolHandler::action_t& action) {
    assert(action.consumed <= _offset);
    if (action.consumed != 0) {
        // The bytes of a following request stay at the front.
        _rbuf.erase(_rbuf.begin(), _rbuf.begin() + static_cast<std::ptrdiff_t>(action.consumed));
        _offset -= action.consumed;
        if (_offset == 0)
            _rbuf.assign(buffer_step, 0);
        else if (_rbuf.size() < _offset + buffer_step)
            _rbuf.resize(_offset + buffer_step);
    }
    // The idle clock counts bytes; eviction counts whole requests.
    if (action.request && _stamp_requests)
        _last_request = std::chrono::steady_clock::now();
    if (_frame_timeout.count() > 0)
        watch_frame(action.consumed != 0);
    switch (action.kind) {
    case CProtocolHandler::action_t::READ:
        // Bytes left after a frame dropped unanswered may hold the next request.
        if (action.consumed != 0 && _offset != 0)
            return true;
        read_more();
        return false;
    case CProtocolHandler::action_t::SEND:
        write(action.data, action.size);
        return false;
    case CProtocolHandler::action_t::WAIT:
        return false; // resumed() follows
    case CProtocolHandler::action_t::CLOSE:
        remove();
        return false;
    }
    return false;
}

void CTcpConnection::resumed() {
    // A connection closed while its request waited answers nobody.
    if (_sock.is_open())
        act(_prot->resume());
}

void CTcpConnection::write(const uint8_t* data, size_t size) {
    assert(_sock.is_open());
    assert(size != 0);
    auto me = self();
    const auto done = [me](const boost::system::error_code& error, size_t) {
        me->handle_write(error);
    };
    // The handler keeps the bytes until it is called again, which is after the write.
    if (_tls) {
        _tls->async_write(boost::asio::buffer(data, size), done);
        return;
    }
    // An answer nearly always fits the socket's buffer at once. Sent here, the next request
    // is read without a trip through the event loop, which costs an extra wait for events
    // and a posted completion per request. Once deep only: an answer sent while completing
    // another goes the asynchronous way, so that pipelined requests do not recurse.
    if (!_sending_inline) {
        boost::system::error_code error;
        const size_t sent = _sock.send(boost::asio::buffer(data, size), 0, error);
        if (!error && sent == size) {
            _sending_inline = true;
            handle_write(error);
            _sending_inline = false;
            return;
        }
        if (error && error != boost::asio::error::would_block &&
            error != boost::asio::error::try_again) {
            handle_write(error);
            return;
        }
        data += sent;
        size -= sent;
    }
    boost::asio::async_write(_sock, boost::asio::buffer(data, size), done);
}

void CTcpConnection::handle_write(const boost::system::error_code& error) {
    LOG_STACK();
    if (error) {
        if (error != boost::asio::error::operation_aborted)
            remove();
        return;
    }
    if (_idle_timeout.count() > 0)
        _last_heard = std::chrono::steady_clock::now();
    if (_offset != 0)
        process();
    else
        read_more();
}
