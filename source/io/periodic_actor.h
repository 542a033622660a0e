#pragma once
// An actor that does its work every period, on the I/O thread, until it is closed.
#include "io/io_actor.h"

#include <boost/asio/steady_timer.hpp>

#include <chrono>

class CPeriodicActor : public CIoActor {
public:
    void close() override { _timer.cancel(); }

protected:
    CPeriodicActor(CIoManager& manager, std::chrono::microseconds period);
    // The first tick comes one period after start(); call it once the actor is owned by a
    // shared pointer.
    void start();
    virtual void tick() = 0;

private:
    void wait();

    boost::asio::steady_timer _timer;
    std::chrono::microseconds _period;
};
