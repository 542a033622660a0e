#include "io/io_sighandler.h"
#include "io/periodic_actor.h"
#include "support/loop_fixture.h"
#include "support/subsystem_log.h"
#include "support/wait.h"

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

// Raises SIGPIPE, then sig once the loop runs; true when the loop ended by itself (not by
// the guard), as a success.
bool loop_ended_by(int sig, std::string& log) {
    CLoopFixture f;
    f.manager.add(CIoSighandler::create(f.manager));
    CSubsystemLog capture(SS_IO_SYSTEM, 1);
    bool guarded = false;
    boost::asio::steady_timer guard(f.manager.service(), std::chrono::seconds(5));
    guard.async_wait([&](const boost::system::error_code& e) {
        guarded = !e;
        f.manager.quit();
    });
    ::kill(::getpid(), SIGPIPE);
    boost::asio::post(f.manager.service(), [sig] { ::kill(::getpid(), sig); });
    const bool success = f.manager.run();
    log = capture.text();
    return success && !guarded;
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
    // Three periods after the first stopped, on the same loop.
    auto clock = CTicker::create(f.manager, 6);
    BOOST_TEST(f.run_with(
        [&] { eventually([&] { return f.in_loop([&] { return clock->ticks == 6; }); }); }));
    BOOST_TEST(clock->ticks == 6);
    BOOST_TEST(ticker->ticks == 3);
    BOOST_TEST(closed->ticks == 0);
}

// Each terminating signal ends the loop in order; SIGPIPE, raised before it, is ignored and
// the handler goes on waiting.
BOOST_AUTO_TEST_CASE(terminating_signals) {
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
        std::string log;
        BOOST_TEST(loop_ended_by(sig, log), "signal " << sig);
        BOOST_TEST(log.find("Caught SIGPIPE; ignoring") != std::string::npos, log);
        BOOST_TEST(log.find("Caught signal " + std::to_string(sig) + ", exiting") !=
                       std::string::npos,
                   log);
    }
}

// A handler that throws ends the loop as a failure, so that the process exits non-zero.
BOOST_AUTO_TEST_CASE(a_failing_handler_ends_the_loop_as_a_failure) {
    CLoopFixture f;
    f.manager.add(CIoSighandler::create(f.manager));
    boost::asio::post(f.manager.service(), [] {
        throw boost::system::system_error(boost::asio::error::bad_descriptor, "close");
    });
    CSubsystemLog capture(SS_IO_SYSTEM, 0);
    BOOST_TEST(!f.manager.run());
    const std::string log = capture.text();
    BOOST_TEST(log.find("ERROR [0] CIoManager::run: The event loop ended: close: Bad file "
                        "descriptor") != std::string::npos,
               log);
}

BOOST_AUTO_TEST_SUITE_END()
BOOST_AUTO_TEST_SUITE_END()
