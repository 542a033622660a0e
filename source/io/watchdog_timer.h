#pragma once
// Feeds a watchdog: every half time-out it calls the ping it was given. The server's ping
// goes through the CDS thread, so that a stalled CDS thread also starves the watchdog.
#include "io/io_actor.h"
#include "io/timed_object.h"

#include <cstdint>
#include <functional>

class CIoTimer;

class CWatchdogTimer : public CIoActor, public CTimedObject {
public:
    // timeout_ms: the watchdog time-out; the first ping follows half of it after creation.
    static std::shared_ptr<CWatchdogTimer> create(CIoManager& manager, unsigned timeout_ms,
                                                  std::function<void()> ping);

    void timeout(const CIoTimer& timer) override;
    void close() override;
    uint32_t period() const { return _period; }

private:
    CWatchdogTimer(CIoManager& manager, unsigned timeout_ms, std::function<void()> ping);

    uint32_t _period; // microseconds
    std::function<void()> _ping;
    std::shared_ptr<CIoTimer> _timer;
};
