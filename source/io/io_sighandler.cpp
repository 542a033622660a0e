#include "io/io_sighandler.h"

#include "io/io_manager.h"
#include "util/log.h"

#include <csignal>

std::shared_ptr<CIoSighandler> CIoSighandler::create(CIoManager& manager) {
    std::shared_ptr<CIoSighandler> handler(new CIoSighandler(manager));
    handler->wait();
    return handler;
}

CIoSighandler::CIoSighandler(CIoManager& manager) : CIoActor(manager), _sigset(manager.service()) {
    _sigset.add(SIGPIPE);
    _sigset.add(SIGHUP);
    _sigset.add(SIGINT);
    _sigset.add(SIGQUIT);
    _sigset.add(SIGTERM);
}

void CIoSighandler::wait() {
    auto self = std::static_pointer_cast<CIoSighandler>(shared_from_this());
    _sigset.async_wait([self](const boost::system::error_code& error, int signal) {
        self->handle_signal(error, signal);
    });
}

void CIoSighandler::handle_signal(const boost::system::error_code& error, int signal) {
    LOG_STACK();
    if (error == boost::asio::error::operation_aborted)
        return;
    if (error) {
        LOG_ERR(SS_IO_SYSTEM, 1, "%s", error.message().c_str());
    } else if (signal == SIGPIPE) {
        LOG_WARN(SS_IO_SYSTEM, 1, "Caught SIGPIPE; ignoring");
        wait();
        return;
    } else {
        LOG_INFO(SS_IO_SYSTEM, 1, "Caught signal %d, exiting", signal);
    }
    get_manager().quit();
}

void CIoSighandler::close() {
    boost::system::error_code ignored;
    _sigset.cancel(ignored);
}
