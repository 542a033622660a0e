#include "io/tcp/tcp_connection.h"

#include "util/log.h"

#include <boost/asio/write.hpp>

#include <cassert>

std::shared_ptr<CTcpConnection> CTcpConnection::create(CIoManager& manager,
                                                       const CProtocolHandler& prototype) {
    return std::shared_ptr<CTcpConnection>(new CTcpConnection(manager, prototype));
}

CTcpConnection::CTcpConnection(CIoManager& manager, const CProtocolHandler& prototype)
    : CIoMessenger(manager, prototype), _sock(get_io_service()) {}

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

void CTcpConnection::close() {
    if (!_sock.is_open())
        return;
    if (log_enabled(SS_TCP_IO, 2)) {
        boost::system::error_code ec;
        const auto peer = _sock.remote_endpoint(ec);
        LOG_INFO(SS_TCP_IO, 2, "Closing socket to '%s'",
                 ec ? "unknown" : peer.address().to_string().c_str());
    }
    boost::system::error_code shutdown_error;
    _sock.shutdown(boost::asio::ip::tcp::socket::shutdown_both, shutdown_error);
    boost::system::error_code close_error;
    _sock.close(close_error);
    // A peer that reset the connection makes shutdown fail; the socket is closed anyway.
    if (shutdown_error && shutdown_error != boost::asio::error::not_connected)
        throw boost::system::system_error(shutdown_error, "shutdown");
    if (close_error)
        throw boost::system::system_error(close_error, "close");
}

void CTcpConnection::read_more() {
    assert(_sock.is_open());
    assert(_offset < _rbuf.size());
    auto me = self();
    _sock.async_read_some(boost::asio::buffer(_rbuf.data() + _offset, _rbuf.size() - _offset),
                          [me](const boost::system::error_code& error, size_t count) {
                              me->handle_read(error, count);
                          });
}

void CTcpConnection::handle_read(const boost::system::error_code& error, size_t count) {
    LOG_STACK();
    if (error) {
        if (error != boost::asio::error::operation_aborted)
            remove();
        return;
    }
    _offset += count;
    assert(_offset <= _rbuf.size());
    LOG_DUMP(SS_TCP_IO, 6, _rbuf.data() + _offset - count, count, "Received");
    parse();
}

void CTcpConnection::parse() {
    parse_or_read_more();
}

void CTcpConnection::write() {
    assert(_sock.is_open());
    assert(!_wbuf.empty());
    auto me = self();
    boost::asio::async_write(
        _sock, boost::asio::buffer(_wbuf),
        [me](const boost::system::error_code& error, size_t) { me->handle_write(error); });
}

void CTcpConnection::handle_write(const boost::system::error_code& error) {
    LOG_STACK();
    if (error) {
        if (error != boost::asio::error::operation_aborted)
            remove();
        return;
    }
    if (_offset != 0)
        parse();
    else
        read_more();
}
