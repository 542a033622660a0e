#pragma once
// The command and response queues between the I/O thread and a worker: a list, a mutex
// and a condition variable each. Taking the whole list in one step keeps one lock per
// batch, not per command.
#include "threads/commands/thread_command.h"

#include <condition_variable>
#include <memory>
#include <mutex>

class CIoManager;
class CThreadIoActor;

class CThreadBaseQueue {
public:
    virtual ~CThreadBaseQueue() = default;
    // Urgent commands go to the front; wakes one waiter.
    virtual void add(cmd_ptr_t cmd, bool urgent);
    // Takes every pending command; with wait, blocks until there is at least one.
    cmdlist_t remove(bool wait);
    // Returns commands taken but not handled to the front, in their order.
    void put_back(cmdlist_t cmds);

protected:
    void insert(cmd_ptr_t cmd, bool urgent);

    cmdlist_t _list;
    std::mutex _mutex;
    std::condition_variable _cond;
};

class CThreadCommandQueue : public CThreadBaseQueue {};

// Wakes the I/O manager through its actor whenever a finished command arrives.
class CThreadResponseQueue : public CThreadBaseQueue {
public:
    ~CThreadResponseQueue() override;
    void add(cmd_ptr_t cmd, bool urgent) override;
    // Makes a new actor for this queue (replacing a former one) and adds it to manager.
    void create_actor(CIoManager& manager);
    // The worker is ending: close the actor and post no more.
    void exit();
    // The actor is closing: post no more to it.
    void detach(const CThreadIoActor* actor);

private:
    std::shared_ptr<CThreadIoActor> _actor;
    std::weak_ptr<CThreadIoActor> _last_actor; // forgotten by its queue at destruction
};
