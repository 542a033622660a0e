#include "io/periodic_actor.h"

CPeriodicActor::CPeriodicActor(CIoManager& manager, std::chrono::microseconds period)
    : CIoActor(manager), _timer(get_io_service()), _period(period) {}

void CPeriodicActor::start() {
    wait();
}

void CPeriodicActor::wait() {
    _timer.expires_after(_period);
    // Weak: the timer must not keep a closed actor alive.
    std::weak_ptr<CIoActor> weak = shared_from_this();
    _timer.async_wait([this, weak](const boost::system::error_code& error) {
        const auto self = weak.lock();
        if (error || !self)
            return;
        // Waits first, so that a tick may close the actor for good.
        wait();
        tick();
    });
}
