#pragma once
// A worker thread fed through a command queue. The I/O thread sends commands; the worker
// executes them in order (urgent ones first) and queues each one back for delivery on the
// I/O thread. Nothing else is shared between the two.
#include "threads/queue/thread_queue.h"
#include "toolkit/tk_string.h"
#include "util/realtime_priority.h"

#include <boost/optional.hpp>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

class CIoManager;

class CThreadBase {
public:
    // Creates both queues and starts the thread.
    CThreadBase(const tk_string& name, const boost::optional<CRealtimePriority>& priority);
    // Stops the thread if it still runs (5 seconds, then cancelled).
    virtual ~CThreadBase();
    CThreadBase(const CThreadBase&) = delete;
    CThreadBase& operator=(const CThreadBase&) = delete;

    void send(cmd_ptr_t cmd, bool urgent);
    // Every finished command, waiting for at least one; for use before create_actor.
    cmdlist_t receive();
    // From now on finished commands are delivered through manager's loop.
    void create_actor(CIoManager& manager);

    // One pass of the worker loop; true when the worker is to end.
    bool execute_commands();
    // The thread function.
    void operator()();
    // Makes the worker quit, overtaking pending work; a worker still running after
    // `timeout` seconds is cancelled. Commands still queued in either direction are then
    // destroyed on the calling thread, so it must be the thread of their timers' event
    // loop, and that loop must still exist.
    void stop(size_t timeout);

    const tk_string& name() const { return _name; }
    bool running() const { return static_cast<bool>(_thr); }

private:
    void start();
    // Runs one command; false when the worker is to end.
    bool execute(CThreadCommand& cmd);

    tk_string _name;
    // A cancelled thread can only be joined natively, so this is a std::thread; the end of
    // the thread function (normal, or unwound by cancellation) is signalled through _ended.
    std::unique_ptr<std::thread> _thr;
    std::mutex _end_mutex;
    std::condition_variable _end_cond;
    bool _ended = false;
    boost::optional<CRealtimePriority> _priority;
    std::unique_ptr<CThreadCommandQueue> _command_queue;
    std::unique_ptr<CThreadResponseQueue> _response_queue;
};
