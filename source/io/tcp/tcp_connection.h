#pragma once
// The messenger of one accepted TCP socket. Requests are served strictly one at a time:
// nothing is read while a request is being answered, and bytes of a pipelined request
// wait in the buffer until the answer has been written. Any I/O error or the peer's close
// ends only this connection.
#include "io/io_messenger.h"

#include <boost/asio/ip/tcp.hpp>

class CTcpConnection : public CIoMessenger {
public:
    static std::shared_ptr<CTcpConnection> create(CIoManager& manager,
                                                  const CProtocolHandler& prototype);
    ~CTcpConnection() override;

    boost::asio::ip::tcp::socket& socket() { return _sock; }

    void close() override;
    void read_more() override;
    void reset_flags() override {}
    void write() override;
    void handle_read(const boost::system::error_code& error, size_t count) override;
    void handle_write(const boost::system::error_code& error) override;
    void parse() override;

private:
    CTcpConnection(CIoManager& manager, const CProtocolHandler& prototype);
    std::shared_ptr<CTcpConnection> self();

    boost::asio::ip::tcp::socket _sock;
};
