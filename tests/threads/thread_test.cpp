#include "io/io_timer.h"
#include "support/stderr_capture.h"
#include "support/worker_loop_fixture.h"
#include "threads/commands/thread_response_handler.h"
#include "threads/commands/thread_set_verbosity.h"
#include "threads/thread_base.h"
#include "util/generic_err.h"

#include <boost/test/unit_test.hpp>

#include <condition_variable>

namespace {

// A latch the worker can be held on while the test fills its queue.
struct CGate {
    void open() {
        std::lock_guard<std::mutex> lock(mutex);
        is_open = true;
        cond.notify_all();
    }
    void wait() {
        std::unique_lock<std::mutex> lock(mutex);
        entered = true;
        cond.notify_all();
        cond.wait(lock, [this] { return is_open; });
    }
    // Blocks until the worker waits at the gate.
    void wait_entered() {
        std::unique_lock<std::mutex> lock(mutex);
        cond.wait(lock, [this] { return entered; });
    }
    std::mutex mutex;
    std::condition_variable cond;
    bool is_open = false;
    bool entered = false;
};

// What the worker executed, in order; shared between the worker and the test.
struct COrder {
    void push_back(const std::string& name) {
        std::lock_guard<std::mutex> lock(mutex);
        names.push_back(name);
    }
    std::vector<std::string> get() {
        std::lock_guard<std::mutex> lock(mutex);
        return names;
    }
    // Waits until name was executed.
    bool wait_for(const std::string& name) {
        for (int i = 0; i < 500; ++i) {
            const auto now = get();
            if (std::find(now.begin(), now.end(), name) != now.end())
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
    std::mutex mutex;
    std::vector<std::string> names;
};

// Records its name in the (worker-side) order list; may wait, sleep or throw.
class CRecordCommand : public CThreadCommand {
public:
    enum behaviour_t { record, throw_generic, throw_std, sleep_long };
    CRecordCommand(COrder& order, std::string name, behaviour_t b = record, CGate* gate = nullptr,
                   const std::weak_ptr<CThreadResponseHandler>& requester = {})
        : CThreadCommand(requester), _order(order), _name(std::move(name)), _behaviour(b),
          _gate(gate) {}
    void execute(CThreadBase*) override {
        if (_gate)
            _gate->wait();
        _order.push_back(_name);
        level_seen = thread_log()._verbosity;
        if (_behaviour == throw_generic)
            throw generic_err();
        if (_behaviour == throw_std)
            throw std::runtime_error("boom");
        if (_behaviour == sleep_long)
            for (int i = 0; i < 3000; ++i)
                ::usleep(10000); // a cancellation point
    }
    const std::string& name() const { return _name; }
    int32_t level_seen = -100;

private:
    COrder& _order;
    std::string _name;
    behaviour_t _behaviour;
    CGate* _gate;
};

std::vector<std::string> names(const cmdlist_t& list) {
    std::vector<std::string> out;
    for (const auto& cmd : list)
        out.push_back(static_cast<CRecordCommand&>(*cmd).name());
    return out;
}

// Collects everything until `count` commands came back.
cmdlist_t receive_all(CThreadBase& thread, size_t count) {
    cmdlist_t all;
    while (all.size() < count)
        all.splice(all.end(), thread.receive());
    return all;
}

class CIdleActor : public CIoActor {
public:
    using CIoActor::CIoActor;
};

struct CRequester : CThreadResponseHandler {
    void post(CThreadCommand& cmd, bool timed_out) override {
        deliveries.push_back(timed_out);
        failed.push_back(cmd.failed());
    }
    std::vector<bool> deliveries;
    std::vector<bool> failed;
};

} // namespace

BOOST_AUTO_TEST_SUITE(threads)

BOOST_AUTO_TEST_CASE(urgent_overtakes_pending) {
    CThreadBase worker("w", boost::none);
    COrder order;
    CGate gate;
    worker.send(cmd_ptr_t(new CRecordCommand(order, "hold", CRecordCommand::record, &gate)), false);
    gate.wait_entered();
    for (int i = 0; i < 10; ++i)
        worker.send(cmd_ptr_t(new CRecordCommand(order, std::to_string(i))), false);
    worker.send(cmd_ptr_t(new CRecordCommand(order, "urgent")), true);
    gate.open();
    const cmdlist_t back = receive_all(worker, 12);
    const auto done = order.get();
    BOOST_REQUIRE(done.size() == 12u);
    BOOST_TEST(done[0] == "hold");
    BOOST_TEST(done[1] == "urgent");
    BOOST_TEST(done[2] == "0");
    BOOST_TEST(names(back) == done, boost::test_tools::per_element());
}

// Commands overtaken by the quit hold timers of the stopping thread's loop, so they must be
// destroyed on that thread, never on the worker.
BOOST_AUTO_TEST_CASE(stop_drops_pending_commands_on_the_stopping_thread) {
    struct CTracked : CRecordCommand {
        CTracked(COrder& order, std::string name, std::vector<std::thread::id>& ids)
            : CRecordCommand(order, std::move(name)), ids(ids) {}
        ~CTracked() override { ids.push_back(std::this_thread::get_id()); }
        std::vector<std::thread::id>& ids;
    };
    std::vector<std::thread::id> ids;
    COrder order;
    CGate gate;
    CThreadBase worker("w", boost::none);
    worker.send(cmd_ptr_t(new CRecordCommand(order, "held", CRecordCommand::record, &gate)), false);
    gate.wait_entered();
    worker.send(cmd_ptr_t(new CTracked(order, "b", ids)), false);
    worker.send(cmd_ptr_t(new CTracked(order, "c", ids)), false);
    std::thread opener([&gate] {
        // Time for stop() to queue its quit ahead of b and c.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        gate.open();
    });
    worker.stop(5);
    opener.join();
    BOOST_TEST(order.get() == std::vector<std::string>{"held"}, boost::test_tools::per_element());
    BOOST_TEST(ids.size() == 2u);
    for (const auto& id : ids)
        BOOST_TEST((id == std::this_thread::get_id()));
}

BOOST_AUTO_TEST_CASE(failures_and_verbosity) {
    CThreadBase worker("w", boost::none);
    COrder order;
    worker.send(cmd_ptr_t(new CThreadSetVerbosity(7)), false);
    worker.send(cmd_ptr_t(new CRecordCommand(order, "bad", CRecordCommand::throw_generic)), false);
    worker.send(cmd_ptr_t(new CRecordCommand(order, "good")), false);
    cmdlist_t back = receive_all(worker, 3);
    back.pop_front();
    // A command that failed still comes back, flagged; the next one runs normally.
    BOOST_TEST(back.front()->failed());
    BOOST_TEST(!back.back()->failed());
    BOOST_TEST(static_cast<CRecordCommand&>(*back.back()).level_seen == 7);

    // An unexpected exception ends the worker; later commands are never run.
    worker.send(cmd_ptr_t(new CRecordCommand(order, "fatal", CRecordCommand::throw_std)), false);
    worker.send(cmd_ptr_t(new CRecordCommand(order, "never")), false);
    BOOST_TEST(order.wait_for("fatal"));
    worker.stop(5);
    BOOST_TEST(order.get().back() == "fatal");
    BOOST_TEST(!worker.running());
}

#ifndef __SANITIZE_ADDRESS__
// AddressSanitizer cannot unwind a cancelled thread (it fails an internal check), so this
// case runs in the plain build only.
BOOST_AUTO_TEST_CASE(stuck_worker_is_cancelled) {
    const int32_t level = thread_log()._verbosity;
    thread_log()._verbosity = 1;
    CStderrCapture capture;
    auto worker = std::make_unique<CThreadBase>("sleepy", boost::none);
    COrder order;
    CGate gate;
    worker->send(cmd_ptr_t(new CRecordCommand(order, "z", CRecordCommand::sleep_long, &gate)),
                 false);
    gate.open();
    BOOST_TEST(order.wait_for("z"));
    const auto start = std::chrono::steady_clock::now();
    worker->stop(1);
    const auto took = std::chrono::steady_clock::now() - start;
    BOOST_TEST(!worker->running());
    BOOST_TEST((took < std::chrono::seconds(5)));
    const std::string log = capture.text();
    thread_log()._verbosity = level;
    BOOST_TEST(log.find("Timed out waiting for 'sleepy' to exit! Forcing thread to exit...") !=
                   std::string::npos,
               log);
}

#endif

BOOST_AUTO_TEST_CASE(responses_through_the_loop) {
    CWorkerLoopFixture f(std::make_unique<CThreadBase>("w", boost::none));
    auto actor = std::make_shared<CIdleActor>(f.manager);
    auto requester = std::make_shared<CRequester>();
    COrder order;
    CGate slow_gate;

    // One command answers normally; one is held past its time-out and is delivered once,
    // by the time-out; one has lost its requester and is delivered to nobody.
    f.send(
        cmd_ptr_t(new CRecordCommand(order, "fast", CRecordCommand::record, nullptr, requester)));
    cmd_ptr_t slow(
        new CRecordCommand(order, "slow", CRecordCommand::record, &slow_gate, requester));
    auto timer = CIoTimer::create(*actor, 50000);
    auto armed = timer;
    slow->give_timer(timer);
    BOOST_TEST(!timer);
    armed->reset();
    f.send(std::move(slow));
    {
        auto gone = std::make_shared<CRequester>();
        f.send(
            cmd_ptr_t(new CRecordCommand(order, "orphan", CRecordCommand::record, nullptr, gone)));
    }
    const bool finished = f.run_with([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        slow_gate.open();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    });
    BOOST_TEST(finished);
    BOOST_TEST(requester->deliveries == (std::vector<bool>{false, true}),
               boost::test_tools::per_element());
    BOOST_TEST(order.get().size() == 3u);
}

BOOST_AUTO_TEST_SUITE_END()
