#include "io/protocol_handler.h"
#include "io/tcp/tcp_connection.h"
#include "io/tcp/tcp_listener.h"
#include "support/loop_fixture.h"
#include "support/stderr_capture.h"
#include "support/test_client.h"

#include <boost/test/unit_test.hpp>

#include <algorithm>
#include <cctype>

namespace {

// Answers every line with the line in upper case, optionally after a delay, and keeps a
// log of what it did so that tests can check the order of events.
struct CLineLog {
    std::vector<std::string> events;
    size_t max_unread = 0;
};

class CLineHandler : public CProtocolHandler {
public:
    CLineHandler(boost::asio::io_context& io, CLineLog& log, int delay_ms)
        : _io(io), _log(log), _delay_ms(delay_ms) {}

    action_t received(iobuf_const_iter_t begin, iobuf_const_iter_t end) override {
        _log.max_unread = std::max(_log.max_unread, static_cast<size_t>(end - begin));
        action_t action;
        const auto nl = std::find(begin, end, '\n');
        if (nl == end)
            return action;
        std::string line(begin, nl);
        action.consumed = static_cast<size_t>(nl - begin) + 1;
        action.request = true;
        _log.events.push_back("parse " + line);
        std::transform(line.begin(), line.end(), line.begin(), ::toupper);
        _out.assign(line.begin(), line.end());
        _out.push_back('\n');
        if (_delay_ms == 0)
            return send(action);
        // Answer later, as a handler waiting for the store would.
        auto timer = std::make_shared<boost::asio::steady_timer>(_io);
        timer->expires_after(std::chrono::milliseconds(_delay_ms));
        std::weak_ptr<bool> alive = _alive;
        timer->async_wait([this, timer, alive, line](const boost::system::error_code& e) {
            if (e || alive.expired())
                return;
            _log.events.push_back("write " + line);
            wake();
        });
        action.kind = action_t::WAIT;
        return action;
    }
    action_t resume() override { return send(action_t()); }

private:
    action_t send(action_t action) {
        action.kind = action_t::SEND;
        action.data = _out.data();
        action.size = _out.size();
        return action;
    }

    boost::asio::io_context& _io;
    CLineLog& _log;
    int _delay_ms;
    iobuf_t _out;
    std::shared_ptr<bool> _alive = std::make_shared<bool>(true);
};

struct CTcpFixture : CLoopFixture {
    explicit CTcpFixture(int delay_ms = 0) {
        factory = [this, delay_ms] {
            return std::make_unique<CLineHandler>(manager.service(), log, delay_ms);
        };
        listener = CTcpListener::create(manager, factory, 0);
        manager.add(listener);
        port = listener->port();
    }
    size_t actors() {
        return in_loop([this] { return manager.actor_count(); });
    }
    // Waits until the manager holds `count` actors (connections come and go asynchronously).
    bool wait_for_actors(size_t count) {
        for (int i = 0; i < 200; ++i) {
            if (actors() == count)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    CLineLog log;
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
        CTestClient c6(f.port, true);
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
    const std::vector<std::string> expected{"parse a", "write A", "parse b",
                                            "write B", "parse c", "write C"};
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
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
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
    CStderrCapture capture;
    const int32_t saved = _svr_verb_array[SS_TCP_IO];
    _svr_verb_array[SS_TCP_IO] = 0;
    BOOST_CHECK_THROW(CTcpListener::create(f.manager, f.factory, f.port),
                      boost::system::system_error);
    _svr_verb_array[SS_TCP_IO] = saved;
    const std::string text = capture.text();
    BOOST_TEST(text.find("While binding to TCP port " + std::to_string(f.port) + ": ") !=
                   std::string::npos,
               text);
}

BOOST_AUTO_TEST_SUITE_END()
BOOST_AUTO_TEST_SUITE_END()
