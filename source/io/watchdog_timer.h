#pragma once
// Feeds the data store's watchdog: every half time-out it sends an urgent ping command to
// the CDS thread, so that a stalled CDS thread also starves the watchdog.
#include "io/io_actor.h"
#include "io/timed_object.h"

#include <cstdint>

class CIoTimer;

class CWatchdogTimer : public CIoActor, public CTimedObject {
public:
    // timeout_ms: the watchdog time-out; the first ping follows half of it after creation.
    static std::shared_ptr<CWatchdogTimer> create(CIoManager& manager, unsigned timeout_ms);

    void timeout(const CIoTimer& timer) override;
    void close() override;
    uint32_t period() const { return _period; }

private:
    CWatchdogTimer(CIoManager& manager, unsigned timeout_ms);

    uint32_t _period; // microseconds
    std::shared_ptr<CIoTimer> _timer;
};
