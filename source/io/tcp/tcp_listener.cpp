#include "io/tcp/tcp_listener.h"

#include "io/io_manager.h"
#include "io/protocol_handler.h"
#include "io/tcp/tcp_connection.h"
#include "util/log.h"

#include <boost/asio/ip/v6_only.hpp>

#include <cassert>

std::shared_ptr<CTcpListener>
CTcpListener::create(CIoManager& manager, const CProtocolHandler& prototype, uint16_t port) {
    std::shared_ptr<CTcpListener> listener(new CTcpListener(manager, prototype, port));
    listener->accept();
    return listener;
}

CTcpListener::CTcpListener(CIoManager& manager, const CProtocolHandler& prototype, uint16_t port)
    : CIoActor(manager), _acceptor(manager.service()), _prot(prototype.clone(nullptr)),
      _retry(manager.service()) {
    LOG_STACK();
    assert(_prot);
    LOG_INFO(SS_TCP_IO, 2, "Listening for incoming TCP connections on port %u", port);
    using boost::asio::ip::tcp;
    try {
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
        _acceptor.listen();
    } catch (const boost::system::system_error& e) {
        LOG_ERR(SS_TCP_IO, 0, "While binding to TCP port %u: %s", port, e.what());
        throw;
    }
}

CTcpListener::~CTcpListener() {
    boost::system::error_code ignored;
    _acceptor.close(ignored);
}

uint16_t CTcpListener::port() const {
    boost::system::error_code ec;
    return _acceptor.local_endpoint(ec).port();
}

void CTcpListener::close() {
    assert(_prot);
    _retry.cancel();
    if (_acceptor.is_open())
        _acceptor.close();
}

void CTcpListener::accept() {
    assert(_prot);
    auto connection = CTcpConnection::create(get_manager(), *_prot);
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
        get_manager().add(connection);
        connection->start();
        accept();
        return;
    }
    LOG_ERR(SS_TCP_IO, 1, "%s", error.message().c_str());
    // Out of descriptors or memory: accepting again at once would only spin.
    if (error == boost::asio::error::no_descriptors || error == boost::asio::error::no_memory ||
        error == boost::asio::error::no_buffer_space || error.value() == ENFILE) {
        auto self = std::static_pointer_cast<CTcpListener>(shared_from_this());
        _retry.expires_after(std::chrono::milliseconds(100));
        _retry.async_wait([self](const boost::system::error_code& e) {
            if (!e)
                self->accept();
        });
        return;
    }
    accept();
}
