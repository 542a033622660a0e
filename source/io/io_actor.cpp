#include "io/io_actor.h"

#include "io/io_manager.h"

boost::asio::io_context& CIoActor::get_io_service() const {
    return _manager.service();
}

void CIoActor::remove() {
    // A transport may learn of its end twice (a failed read and an aborted write); the
    // second time it is gone already.
    const auto self = shared_from_this();
    if (_manager.contains(self))
        _manager.close(self);
}
