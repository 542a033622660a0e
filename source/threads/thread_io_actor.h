#pragma once
// The I/O manager's side of a worker's response queue: when the worker queues a finished
// command, the actor is posted into the event loop, where it delivers every finished
// command to its requester, in queue order, on the I/O thread.
#include "io/io_actor.h"

class CThreadResponseQueue;

class CThreadIoActor : public CIoActor {
public:
    static std::shared_ptr<CThreadIoActor> create(CIoManager& manager, CThreadResponseQueue& queue);
    // Any thread: schedules handler() on the event loop.
    void post();
    // Event loop: delivers the finished commands and frees them.
    void handler();
    void close() override;
    // The queue is being destroyed (event loop thread).
    void forget_queue() { _queue = nullptr; }

private:
    CThreadIoActor(CIoManager& manager, CThreadResponseQueue& queue)
        : CIoActor(manager), _queue(&queue) {}

    CThreadResponseQueue* _queue;
};
