#pragma once
// An I/O manager for tests: the loop runs on the test's thread while the client side of a
// test runs on a thread of its own.
#include "io/io_actor.h"
#include "io/io_manager.h"
#include "util/log.h"

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

class CLoopFixture {
public:
    // Runs the loop until client returns (then quits it) or until limit; true when the
    // client finished.
    bool run_with(const std::function<void()>& client,
                  std::chrono::milliseconds limit = std::chrono::seconds(20)) {
        std::atomic<bool> done{false};
        boost::asio::steady_timer guard(manager.service(), limit);
        guard.async_wait([this](const boost::system::error_code& e) {
            if (!e)
                manager.quit();
        });
        std::thread side([&] {
            client();
            done = true;
            boost::asio::post(manager.service(), [this] { manager.quit(); });
        });
        manager.run();
        side.join();
        return done;
    }

    // Runs f on the loop's thread and waits for its result (from the client thread).
    template <class F> auto in_loop(F f) -> decltype(f()) {
        std::packaged_task<decltype(f())()> task(f);
        auto result = task.get_future();
        boost::asio::post(manager.service(), [&task] { task(); });
        return result.get();
    }

    CIoManager manager;
};
