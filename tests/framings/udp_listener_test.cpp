#include "io/udp/udp_listener.h"
#include "support/loop_fixture.h"
#include "support/upper_case_handler.h"
#include "util/transport_counters.h"

#include <boost/test/unit_test.hpp>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// A client socket on 127.0.0.1 that waits 300 ms at most for an answer.
class CUdpClient {
public:
    explicit CUdpClient(uint16_t port) : _fd(::socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::connect(_fd, reinterpret_cast<const sockaddr*>(&to), sizeof to);
        timeval tv{0, 300000};
        ::setsockopt(_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    ~CUdpClient() { ::close(_fd); }
    void send(const std::string& text) { ::send(_fd, text.data(), text.size(), 0); }
    // The next answer; empty when none came.
    std::string receive() {
        char buf[512];
        const ssize_t n = ::recv(_fd, buf, sizeof buf, 0);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
    }

private:
    int _fd;
};

struct CUdpFixture : CLoopFixture {
    // Each datagram is one request, answered after delay_ms.
    std::shared_ptr<CUdpListener> listen(CUdpListenerOptions options, int delay_ms = 0) {
        options.counters = &counts;
        const handler_factory_t factory = [this, delay_ms] {
            return std::make_unique<CUpperCaseHandler>(
                manager.service(), log, delay_ms,
                [](iobuf_const_iter_t begin, iobuf_const_iter_t end, std::string& text) {
                    text.assign(begin, end);
                    return static_cast<size_t>(end - begin);
                },
                [](const std::string& text) { return iobuf_t(text.begin(), text.end()); });
        };
        auto listener = CUdpListener::create(manager, factory, 0, options);
        manager.add(listener);
        port = listener->port();
        return listener;
    }

    CHandlerLog log;
    CTransportCounters counts;
    uint16_t port = 0;
};

} // namespace

BOOST_AUTO_TEST_SUITE(udp_listener)

// Answers go to each datagram's sender, also while earlier ones wait for theirs; a datagram the
// handler does not answer leaves the next one served.
BOOST_FIXTURE_TEST_CASE(answers_go_to_their_senders, CUdpFixture) {
    CUdpListenerOptions options;
    options.max_waiting = 2;
    listen(options, 50);
    const bool finished = run_with([&] {
        CUdpClient a(port), b(port), c(port);
        a.send("from a");
        b.send("from b");
        c.send("!nothing");
        c.send("from c");
        BOOST_TEST(a.receive() == "FROM A");
        BOOST_TEST(b.receive() == "FROM B");
        BOOST_TEST(c.receive() == "FROM C");
    });
    BOOST_TEST(finished);
    BOOST_TEST(counts.refused == 0u);
}

// Datagrams from outside the allow list, or over the sender's rate, are refused unseen and
// counted.
BOOST_FIXTURE_TEST_CASE(refused_datagrams_are_counted, CUdpFixture) {
    CUdpListenerOptions options;
    std::vector<std::string> bad;
    options.allow = CTcpAllowList::parse("10.0.0.0/8", bad);
    listen(options);
    bool finished = run_with([&] {
        CUdpClient a(port);
        a.send("outsider");
        BOOST_TEST(a.receive().empty());
    });
    BOOST_TEST(finished);
    BOOST_TEST(log.events.empty());
    BOOST_TEST(counts.refused == 1u);

    CUdpListenerOptions rated;
    rated.peer_rate = 1; // a second datagram is taken only after a second
    listen(rated);
    finished = run_with([&] {
        CUdpClient a(port);
        for (int i = 0; i < 5; ++i)
            a.send("x");
        unsigned answers = 0;
        while (!a.receive().empty())
            ++answers;
        BOOST_TEST(answers == 1u);
    });
    BOOST_TEST(finished);
    BOOST_TEST(counts.refused == 1u + 4u);
}

BOOST_AUTO_TEST_SUITE_END()
