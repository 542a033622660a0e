#include "io/tcp/tcp_connection.h"
#include "io/tcp/tcp_listener.h"
#include "support/loop_fixture.h"
#include "support/subsystem_log.h"
#include "support/test_client.h"
#include "support/upper_case_handler.h"
#include "support/wait.h"

#include <boost/test/unit_test.hpp>

#include <algorithm>

namespace {

struct CTcpFixture : CLoopFixture {
    // Requests are lines.
    explicit CTcpFixture(int delay_ms = 0) {
        factory = [this, delay_ms] {
            return std::make_unique<CUpperCaseHandler>(
                manager.service(), log, delay_ms,
                [](iobuf_const_iter_t begin, iobuf_const_iter_t end, std::string& line) {
                    const auto nl = std::find(begin, end, '\n');
                    line.assign(begin, nl);
                    return nl == end ? 0 : static_cast<size_t>(nl - begin) + 1;
                },
                [](std::string line) {
                    line += '\n';
                    return iobuf_t(line.begin(), line.end());
                });
        };
        listener = CTcpListener::create(manager, factory, 0);
        manager.add(listener);
        port = listener->port();
    }
    // Waits until the manager holds `count` actors (connections come and go asynchronously).
    bool wait_for_actors(size_t count) {
        return eventually([&] { return in_loop([&] { return manager.actor_count(); }) == count; });
    }

    CHandlerLog log;
    handler_factory_t factory;
    std::shared_ptr<CTcpListener> listener;
    uint16_t port = 0;
};

} // namespace

BOOST_AUTO_TEST_SUITE(io)
BOOST_AUTO_TEST_SUITE(tcp)

BOOST_AUTO_TEST_CASE(request_split_and_pipelined) {
    CTcpFixture f;
    BOOST_TEST(f.port != 0);
    const bool finished = f.run_with([&] {
        CTestClient c(f.port);
        BOOST_REQUIRE(c.fd() >= 0);
        BOOST_TEST(c.send("hello\n"));
        BOOST_TEST(c.receive_text(6) == "HELLO\n");
        // Split over several segments, longer than the buffer's first 256 bytes.
        const std::string big(700, 'x');
        for (size_t i = 0; i < big.size(); i += 100) {
            BOOST_TEST(c.send(big.substr(i, 100)));
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        BOOST_TEST(c.send("\n"));
        BOOST_TEST(c.receive_text(701) == std::string(700, 'X') + "\n");
        // Two requests in one segment are both answered, in order.
        BOOST_TEST(c.send("one\ntwo\n"));
        BOOST_TEST(c.receive_text(8) == "ONE\nTWO\n");
        // IPv4 and IPv6 clients alike.
        CTestClient c6(f.port, "::1");
        if (c6.fd() >= 0) {
            BOOST_TEST(c6.send("six\n"));
            BOOST_TEST(c6.receive_text(4) == "SIX\n");
        }
    });
    BOOST_TEST(finished);
    BOOST_TEST(f.log.max_unread >= 700u);
}

BOOST_AUTO_TEST_CASE(one_request_at_a_time) {
    CTcpFixture f(50);
    const bool finished = f.run_with([&] {
        CTestClient c(f.port);
        BOOST_TEST(c.send("a\nb\nc\n"));
        BOOST_TEST(c.receive_text(6) == "A\nB\nC\n");
    });
    BOOST_TEST(finished);
    // The next request is parsed only once the previous answer is on its way.
    const std::vector<std::string> expected{"a", "write A", "b", "write B", "c", "write C"};
    BOOST_TEST(f.log.events == expected, boost::test_tools::per_element());
}

BOOST_AUTO_TEST_CASE(vanishing_peers_leave_nothing_behind) {
    CTcpFixture f(100);
    const bool finished = f.run_with([&] {
        {
            CTestClient silent(f.port);
            BOOST_REQUIRE(silent.fd() >= 0);
            BOOST_TEST(f.wait_for_actors(2));
        }
        BOOST_TEST(f.wait_for_actors(1));
        {
            // Reset while the answer is pending.
            CTestClient rude(f.port);
            BOOST_TEST(rude.send("x\n"));
            BOOST_TEST(
                eventually([&] { return !f.in_loop([&] { return f.log.events.empty(); }); }));
            rude.reset();
        }
        {
            // Half-close after the request: the request is still read.
            CTestClient half(f.port);
            BOOST_TEST(half.send("half\n"));
            half.shutdown_write();
        }
        {
            CTestClient partial(f.port);
            BOOST_TEST(partial.send("no newline"));
        }
        BOOST_TEST(f.wait_for_actors(1));
        // The listener is unharmed.
        CTestClient c(f.port);
        BOOST_TEST(c.send("still\n"));
        BOOST_TEST(c.receive_text(6) == "STILL\n");
    });
    BOOST_TEST(finished);
}

BOOST_AUTO_TEST_CASE(many_connections_then_quit) {
    CTcpFixture f;
    std::vector<std::unique_ptr<CTestClient>> clients;
    const bool finished = f.run_with([&] {
        for (int i = 0; i < 50; ++i) {
            clients.push_back(std::make_unique<CTestClient>(f.port));
            BOOST_TEST(clients.back()->send("c" + std::to_string(i) + "\n"));
        }
        for (int i = 0; i < 50; ++i) {
            const std::string want = "C" + std::to_string(i) + "\n";
            BOOST_TEST(clients[static_cast<size_t>(i)]->receive_text(want.size()) == want);
        }
        BOOST_TEST(f.wait_for_actors(51));
    });
    BOOST_TEST(finished);
    // Quitting the manager closed every connection.
    BOOST_TEST(f.manager.actor_count() == 0u);
    for (auto& c : clients)
        BOOST_TEST(c->peer_closed());
}

BOOST_AUTO_TEST_CASE(port_in_use) {
    CTcpFixture f;
    CSubsystemLog capture(SS_TCP_IO, 0);
    BOOST_CHECK_THROW(CTcpListener::create(f.manager, f.factory, f.port),
                      boost::system::system_error);
    const std::string text = capture.text();
    BOOST_TEST(text.find("While binding to TCP port " + std::to_string(f.port) + ": ") !=
                   std::string::npos,
               text);
}

BOOST_AUTO_TEST_SUITE_END()
BOOST_AUTO_TEST_SUITE_END()
