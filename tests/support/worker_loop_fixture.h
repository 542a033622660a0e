#pragma once
// An event loop with a worker thread whose answers it delivers. The worker is stopped while
// the loop still exists: commands still queued hold timers of that loop.
#include "support/loop_fixture.h"
#include "threads/thread_base.h"

class CWorkerLoopFixture : public CLoopFixture {
public:
    explicit CWorkerLoopFixture(std::unique_ptr<CThreadBase> thread) : worker(std::move(thread)) {
        worker->create_actor(manager);
    }
    ~CWorkerLoopFixture() { worker->stop(5); }

    void send(cmd_ptr_t cmd) { worker->send(std::move(cmd), false); }

    std::unique_ptr<CThreadBase> worker;
};
