#include "io/io_sighandler.h"
#include "io/periodic_actor.h"
#include "support/loop_fixture.h"
#include "support/stderr_capture.h"

#include <boost/test/unit_test.hpp>

#include <csignal>

namespace {

// Ticks every 10 ms, and closes itself after `last` ticks.
class CTicker : public CPeriodicActor {
public:
    static std::shared_ptr<CTicker> create(CIoManager& manager, int last) {
        std::shared_ptr<CTicker> ticker(new CTicker(manager, last));
        manager.add(ticker);
        ticker->start();
        return ticker;
    }
    int ticks = 0;

private:
    CTicker(CIoManager& manager, int last)
        : CPeriodicActor(manager, std::chrono::milliseconds(10)), _last(last) {}
    void tick() override {
        if (++ticks == _last)
            remove();
    }
    int _last;
};

// Raises sig while the loop runs; true when the loop ended by itself (not by the guard).
bool loop_ended_by(int sig, std::string& log) {
    CLoopFixture f;
    f.manager.add(CIoSighandler::create(f.manager));
    const int32_t saved = _svr_verb_array[SS_IO_SYSTEM];
    _svr_verb_array[SS_IO_SYSTEM] = 1;
    CStderrCapture capture;
    std::atomic<bool> running{true};
    std::thread side([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        ::kill(::getpid(), sig);
        // The loop gets a second to end; otherwise it is ended for the test.
        for (int i = 0; i < 100 && running; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        boost::asio::post(f.manager.service(), [&] { f.manager.quit(); });
    });
    const auto start = std::chrono::steady_clock::now();
    BOOST_TEST(f.manager.run()); // a signal is an orderly end
    running = false;
    const auto took = std::chrono::steady_clock::now() - start;
    side.join();
    _svr_verb_array[SS_IO_SYSTEM] = saved;
    log = capture.text();
    return took < std::chrono::milliseconds(900);
}

} // namespace

BOOST_AUTO_TEST_SUITE(io)
BOOST_AUTO_TEST_SUITE(timers_and_signals)

// A periodic actor ticks every period until it is closed, and a tick may close it.
BOOST_AUTO_TEST_CASE(periodic_ticks_until_closed) {
    CLoopFixture f;
    auto ticker = CTicker::create(f.manager, 3);
    auto closed = CTicker::create(f.manager, 100);
    f.manager.close(closed);
    f.run_with([] { std::this_thread::sleep_for(std::chrono::milliseconds(150)); });
    BOOST_TEST(ticker->ticks == 3);
    BOOST_TEST(closed->ticks == 0);
}

BOOST_AUTO_TEST_CASE(terminating_signals) {
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
        std::string log;
        BOOST_TEST(loop_ended_by(sig, log), "signal " << sig);
        BOOST_TEST(log.find("Caught signal " + std::to_string(sig) + ", exiting") !=
                       std::string::npos,
                   log);
    }
}

BOOST_AUTO_TEST_CASE(sigpipe_is_ignored) {
    std::string log;
    BOOST_TEST(!loop_ended_by(SIGPIPE, log));
    BOOST_TEST(log.find("Caught SIGPIPE; ignoring") != std::string::npos, log);
}

// A handler that throws ends the loop as a failure, so that the process exits non-zero.
BOOST_AUTO_TEST_CASE(a_failing_handler_ends_the_loop_as_a_failure) {
    CLoopFixture f;
    f.manager.add(CIoSighandler::create(f.manager));
    boost::asio::post(f.manager.service(), [] {
        throw boost::system::system_error(boost::asio::error::bad_descriptor, "close");
    });
    const int32_t saved = _svr_verb_array[SS_IO_SYSTEM];
    _svr_verb_array[SS_IO_SYSTEM] = 0;
    CStderrCapture capture;
    BOOST_TEST(!f.manager.run());
    _svr_verb_array[SS_IO_SYSTEM] = saved;
    const std::string log = capture.text();
    BOOST_TEST(log.find("ERROR [0] CIoManager::run: The event loop ended: close: Bad file "
                        "descriptor") != std::string::npos,
               log);
}

BOOST_AUTO_TEST_SUITE_END()
BOOST_AUTO_TEST_SUITE_END()
