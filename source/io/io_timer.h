#pragma once
// A one-shot timer of an actor's event loop that calls back the CTimedObject assigned to
// it. The object may be re-assigned or detached (null) at any time, from any thread: the
// timer's mutex serialises assign, reset, cancel and the expiry, so a detached object is
// never called. Held by shared pointer; a pending wait keeps the timer alive.
#include <boost/asio/steady_timer.hpp>

#include <cstddef>
#include <memory>
#include <mutex>

class CIoActor;
class CTimedObject;

class CIoTimer : public std::enable_shared_from_this<CIoTimer> {
public:
    // period: microseconds, used by reset() without an argument.
    static std::shared_ptr<CIoTimer> create(CIoActor& actor, size_t period);

    void assign(CTimedObject* object);
    // Re-arms the timer to expire `period` microseconds from now.
    void reset(size_t period);
    void reset() { reset(_period); }
    void cancel();
    size_t period() const { return _period; }

private:
    CIoTimer(boost::asio::io_context& service, size_t period);
    void wait();
    void expired(const boost::system::error_code& error, unsigned generation);

    boost::asio::steady_timer _timer;
    CTimedObject* _object = nullptr;
    size_t _period;
    unsigned _generation = 0; // tells a stale completion from the current wait
    std::recursive_mutex _mutex;
};
