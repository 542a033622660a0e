#pragma once
// Keeps the event queue that the event registers read current while the server runs: every
// second it has the CDS thread read the newest events of the log, and puts them in place
// when they come back, on the I/O thread, where requests read the queue. One read at a time.
#include "io/io_actor.h"
#include "io/timed_object.h"
#include "threads/commands/thread_command.h"
#include "threads/commands/thread_response_handler.h"
#include "toolkit/tk_string.h"

#include <functional>
#include <memory>

class CEventQueue;
class CIoTimer;

class CEventRefresher : public CIoActor, public CTimedObject, public CThreadResponseHandler {
public:
    typedef std::function<void(cmd_ptr_t)> submit_t;

    // queue must outlive the actor; submit hands a command to the CDS thread.
    static std::shared_ptr<CEventRefresher> create(CIoManager& manager, CEventQueue& queue,
                                                   const tk_string& log_path, submit_t submit);

    void timeout(const CIoTimer& timer) override;
    void post(CThreadCommand& cmd, bool timed_out) override;
    void close() override;

private:
    CEventRefresher(CIoManager& manager, CEventQueue& queue, const tk_string& log_path,
                    submit_t submit);

    CEventQueue& _queue;
    tk_string _log_path;
    submit_t _submit;
    std::shared_ptr<CIoTimer> _timer;
    bool _pending = false;
};
