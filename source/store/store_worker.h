#pragma once
// The store worker: the one thread that may wait for the data store.
//
// Why it exists. The I/O thread serves requests on its own store connection (CStoreAccess),
// where a read or a write never waits: SQLite answers "busy" at once when another process
// holds the store. Waiting there would stop every connection while a device process runs a
// long transaction or cdsctl loads a tree. So work that may have to wait comes here, to a
// thread with a connection of its own: reads that found the store busy, the writes queued
// behind them, and the work nobody waits for (statistics leaves, event log pages, the
// watchdog ping, WAL checkpoints).
//
// What runs where. On the I/O thread: requests while the store is free, every time-out (its
// timers), and every completion, which this thread posts to the I/O thread's loop. Here: the
// jobs, one at a time in queue order, urgent ones (the watchdog ping) first, and checkpoints.
//
// Write order. CStoreAccess sends a write here only when the store was busy or earlier writes
// still wait here, so writes reach the store in the order they came. The writes waiting here
// together go into one transaction, in that order, and each is answered after the commit.
//
// Time-outs. A request's job carries a state shared with the I/O thread (CStoreJob). The
// I/O thread's timer expires a job that is still pending; this thread claims each write just
// before its transaction commits, and when one of them expired first, rolls back and commits
// the others without it. So a write answered with exception 11 is never made afterwards, and
// a claimed one is answered with its real outcome however late it is.
//
// Checkpoints. The server's connections do not checkpoint the WAL on their own (a checkpoint
// inside a request costs it milliseconds). This thread checkpoints when the I/O thread has
// been idle for a moment, or at once when the WAL passes the size limit.
//
// Failure. A job that throws fails itself only (a request gets exception 4, a task is told)
// and the worker goes on. When the worker itself cannot go on, it calls its fatal handler:
// the process must end with a failure, so that the service is restarted.
#include "store/store_job.h"

#include <boost/asio/io_context.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <pthread.h>

class CCdsHandle;

class CStoreWorker {
public:
    // Work nobody waits for; false or an exception when it failed.
    using task_t = std::function<bool(CCdsHandle& cds)>;
    // Told on the I/O thread how a task went.
    using task_done_t = std::function<void(bool ok)>;

    struct options_t {
        // The thread's name in the log, and its log level.
        std::string name = "store";
        int32_t verbosity = 0;
        // WAL frames past which a checkpoint runs at once (0: only when idle).
        unsigned checkpoint_frames = 1000;
        // How long the I/O thread must have been idle before an idle checkpoint.
        std::chrono::milliseconds idle{100};
        // How long a job waits for a busy store before it fails.
        std::chrono::milliseconds busy_wait{2000};
        // Called on this thread when it cannot go on (never returns normally in a server).
        std::function<void(const std::string& why)> fatal;
    };

    // Starts the thread. cds is this thread's own connection (bound to the leaves the jobs
    // name); completions are posted to io.
    CStoreWorker(std::unique_ptr<CCdsHandle> cds, boost::asio::io_context& io,
                 const options_t& options);
    // Stops the thread if it still runs (5 seconds, then cancelled).
    ~CStoreWorker();
    CStoreWorker(const CStoreWorker&) = delete;
    CStoreWorker& operator=(const CStoreWorker&) = delete;

    // Queues a request's job; its done() is posted to the I/O thread when the worker claimed
    // it (see CStoreJob), and never when it expired or was abandoned first.
    void submit(const std::shared_ptr<CStoreJob>& job);
    // Writes submitted and not yet carried out or dropped.
    unsigned queued_writes() const { return _queued_writes.load(); }
    // Queues a task; urgent ones go before everything else.
    void run(task_t task, task_done_t done = {}, bool urgent = false);

    // The I/O thread tells of its own commits (WAL frames after them) and of its requests,
    // so that checkpoints come when it is idle. A count, not a clock: a request pays no
    // system call for it.
    void note_commit(int wal_frames);
    void note_activity() { _activity.fetch_add(1, std::memory_order_relaxed); }

    // Ends the thread: jobs and tasks still queued are dropped (on the calling thread, which
    // must be the I/O thread or the thread that owns the I/O loop). A worker still busy after
    // `timeout` is cancelled.
    void stop(std::chrono::seconds timeout = std::chrono::seconds(5));
    bool running() const { return _running; }
    // Checkpoints made, for tests and the log.
    uint32_t checkpoints() const { return _checkpoints.load(); }

private:
    struct item_t {
        std::shared_ptr<CStoreJob> job; // or a task:
        task_t task;
        task_done_t done;
    };

    static int64_t now_ms();
    void main();
    // Takes the next work: an urgent task, else the first item and the writes right behind it.
    // False when the worker is to end.
    bool next(std::deque<item_t>& batch);
    void execute(std::deque<item_t>& batch);
    void execute_task(item_t& item);
    void read(CStoreJob& job);
    void write(std::deque<item_t>& writes);
    void complete(const std::shared_ptr<CStoreJob>& job);
    void maybe_checkpoint(bool forced);
    // Whether no request came for the idle period, as far as the worker's looks tell.
    bool idle();

    std::unique_ptr<CCdsHandle> _cds;
    boost::asio::io_context& _io;
    options_t _options;

    std::mutex _mutex;
    std::condition_variable _wake;
    std::deque<item_t> _queue;
    std::deque<item_t> _urgent;
    bool _quit = false;
    bool _checkpoint_now = false;

    std::atomic<unsigned> _queued_writes{0};
    std::atomic<uint32_t> _activity{0};
    // The count at the worker's last look, and when it last changed (worker only).
    uint32_t _activity_seen = 0;
    int64_t _activity_changed_ms = 0;
    std::atomic<int> _wal_frames{0};
    // The WAL's length when a checkpoint last copied all it could.
    std::atomic<int> _checkpointed{0};
    std::atomic<uint32_t> _checkpoints{0};

    static void* entry(void* self);

    static const size_t k_stack_size = 256 * 1024;
    // A native thread: its stack size is set, and a stuck one is cancelled. Its end (normal,
    // or unwound by cancellation) is signalled through _ended.
    pthread_t _thread;
    bool _running = false;
    std::mutex _end_mutex;
    std::condition_variable _end_cond;
    bool _ended = false;
};
