#include "threads/queue/thread_queue.h"

#include "io/io_manager.h"
#include "threads/thread_io_actor.h"

void CThreadBaseQueue::insert(cmd_ptr_t cmd, bool urgent) {
    if (urgent)
        _list.push_front(std::move(cmd));
    else
        _list.push_back(std::move(cmd));
}

// The waiter is woken after the lock is let go: woken under it, on a single core it would
// run only to block on the lock again.
void CThreadBaseQueue::add(cmd_ptr_t cmd, bool urgent) {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        insert(std::move(cmd), urgent);
    }
    _cond.notify_one();
}

cmdlist_t CThreadBaseQueue::remove(bool wait) {
    std::unique_lock<std::mutex> lock(_mutex);
    if (wait)
        _cond.wait(lock, [this] { return !_list.empty(); });
    cmdlist_t taken;
    taken.swap(_list);
    return taken;
}

void CThreadBaseQueue::put_back(cmdlist_t cmds) {
    std::lock_guard<std::mutex> lock(_mutex);
    _list.splice(_list.begin(), cmds);
}

CThreadResponseQueue::~CThreadResponseQueue() {
    if (auto actor = _last_actor.lock())
        actor->forget_queue();
}

void CThreadResponseQueue::add(cmd_ptr_t cmd, bool urgent) {
    std::shared_ptr<CThreadIoActor> actor;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        insert(std::move(cmd), urgent);
        actor = _actor;
    }
    // Outside the lock, which the woken event loop (or a waiter in remove) takes first thing.
    _cond.notify_one();
    if (actor)
        actor->post();
}

void CThreadResponseQueue::create_actor(CIoManager& manager) {
    auto actor = CThreadIoActor::create(manager, *this);
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _actor = actor;
        _last_actor = actor;
    }
    manager.add(actor);
}

void CThreadResponseQueue::exit() {
    std::shared_ptr<CThreadIoActor> actor;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        actor.swap(_actor);
    }
    if (actor)
        actor->close();
}

void CThreadResponseQueue::detach(const CThreadIoActor* actor) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_actor.get() == actor)
        _actor.reset();
}
