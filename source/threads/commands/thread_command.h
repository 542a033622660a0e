#pragma once
// A unit of work for a worker thread. It is created on the I/O thread, executed on the
// worker and delivered back on the I/O thread, owned by whoever holds it in a queue. The
// requester is held weakly: a requester that went away gets nothing, and the command may
// skip its work. A command is delivered at most once: by its time-out or by its return.
#include "io/timed_object.h"

#include <atomic>
#include <list>
#include <memory>
#include <mutex>

class CIoTimer;
class CThreadBase;
class CThreadResponseHandler;

class CThreadCommand : public CTimedObject {
public:
    // Thrown by execute to end the worker loop.
    struct worker_quit {};

    explicit CThreadCommand(const std::weak_ptr<CThreadResponseHandler>& requester = {});
    ~CThreadCommand() override;
    CThreadCommand(const CThreadCommand&) = delete;
    CThreadCommand& operator=(const CThreadCommand&) = delete;

    // The timer expired: deliver with the time-out flag.
    void timeout(const CIoTimer& timer) override;
    // Runs on the worker thread.
    virtual void execute(CThreadBase* thread) = 0;
    // Double dispatch back to the requester's matching post.
    virtual void post(CThreadResponseHandler& handler, bool timed_out);

    // Delivers to the requester, if it is still there and nobody delivered before.
    void post_(bool timed_out);
    bool has_handler() const;
    // With take, the command forgets its requester, so that it is delivered only once.
    std::shared_ptr<CThreadResponseHandler> get_handler(bool take);

    // Takes the timer over (timer is emptied) and points it at this command.
    void give_timer(std::shared_ptr<CIoTimer>& timer);
    // Detaches the timer and hands it back.
    std::shared_ptr<CIoTimer> take_timer();

    bool failed() const { return _failed; }
    void set_failed(bool failed) { _failed = failed; }

private:
    // The requester and the timer are reached from both threads (time-out on the I/O
    // thread while the worker executes or discards the command).
    mutable std::mutex _mutex;
    std::weak_ptr<CThreadResponseHandler> _requester;
    std::shared_ptr<CIoTimer> _timer;
    // Written by the worker, read by a time-out that may overtake it.
    std::atomic<bool> _failed{false};
};

typedef std::unique_ptr<CThreadCommand> cmd_ptr_t;
typedef std::list<cmd_ptr_t> cmdlist_t;
