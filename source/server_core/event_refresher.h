#pragma once
// Keeps the event queue that the event registers read current while the server runs: every
// second it has the store worker read the newest events of the log, and puts them in place
// when they come back, on the I/O thread, where requests read the queue. One read at a time.
#include "io/periodic_actor.h"
#include "toolkit/tk_string.h"

#include <memory>

class CEventQueue;
class CStoreWorker;

class CEventRefresher : public CPeriodicActor {
public:
    // queue and worker must outlive the actor.
    static std::shared_ptr<CEventRefresher> create(CIoManager& manager, CEventQueue& queue,
                                                   const tk_string& log_path, CStoreWorker& worker);

private:
    CEventRefresher(CIoManager& manager, CEventQueue& queue, const tk_string& log_path,
                    CStoreWorker& worker);
    void tick() override;

    CEventQueue& _queue;
    tk_string _log_path;
    CStoreWorker& _worker;
    bool _pending = false;
};
