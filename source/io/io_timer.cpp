#include "io/io_timer.h"

#include "io/io_actor.h"
#include "io/timed_object.h"
#include "util/log.h"

std::shared_ptr<CIoTimer> CIoTimer::create(CIoActor& actor, size_t period) {
    return std::shared_ptr<CIoTimer>(new CIoTimer(actor.get_io_service(), period));
}

CIoTimer::CIoTimer(boost::asio::io_context& service, size_t period)
    : _timer(service), _period(period) {}

void CIoTimer::assign(CTimedObject* object) {
    std::lock_guard<std::recursive_mutex> lock(_mutex);
    _object = object;
}

void CIoTimer::reset(size_t period) {
    std::lock_guard<std::recursive_mutex> lock(_mutex);
    try {
        _timer.expires_after(std::chrono::microseconds(period));
        wait();
    } catch (const std::exception& e) {
        LOG_ERR(SS_IO_SYSTEM, 1, "%s", e.what());
    }
}

void CIoTimer::cancel() {
    std::lock_guard<std::recursive_mutex> lock(_mutex);
    ++_generation;
    _timer.cancel();
}

void CIoTimer::wait() {
    const unsigned generation = ++_generation;
    auto self = shared_from_this();
    _timer.async_wait([self, generation](const boost::system::error_code& error) {
        self->expired(error, generation);
    });
}

void CIoTimer::expired(const boost::system::error_code& error, unsigned generation) {
    std::lock_guard<std::recursive_mutex> lock(_mutex);
    if (error || generation != _generation || !_object)
        return;
    _object->timeout(*this);
}
