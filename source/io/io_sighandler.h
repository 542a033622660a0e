#pragma once
// Turns SIGHUP, SIGINT, SIGQUIT and SIGTERM into a shutdown of the I/O manager, and
// swallows SIGPIPE so that a peer closing its socket never ends the process.
#include "io/io_actor.h"

#include <boost/asio/signal_set.hpp>

class CIoSighandler : public CIoActor {
public:
    static std::shared_ptr<CIoSighandler> create(CIoManager& manager);
    void close() override;

private:
    explicit CIoSighandler(CIoManager& manager);
    void wait();
    void handle_signal(const boost::system::error_code& error, int signal);

    boost::asio::signal_set _sigset;
};
