// The master side of a line on a socat pty: the silences it keeps between frames, and an
// answer that pauses inside. The test plays the slave. Only lower bounds are checked: the
// master must not send early, however slowly the test's side runs.
#include "io/serial/serial_master.h"
#include "support/loop_fixture.h"
#include "support/pty_pair.h"
#include "util/crc16.h"

#include <boost/test/unit_test.hpp>

#include <poll.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using bytes_t = std::vector<uint8_t>;
using steady_clock_t = std::chrono::steady_clock;

bytes_t rtu(bytes_t frame) {
    uint16_t crc = crc16::initial;
    for (const uint8_t b : frame)
        crc = crc16::step(crc, b);
    frame.push_back(static_cast<uint8_t>(crc & 0xff));
    frame.push_back(static_cast<uint8_t>(crc >> 8));
    return frame;
}

// Hands out its frames in turn; a frame for address 0 is a broadcast.
struct CScript : CBusClient {
    std::vector<bytes_t> frames;
    size_t at = 0;
    std::vector<size_t> answers;
    std::atomic<int> silences{0};

    frame_t next() override {
        frame_t f;
        if (at == frames.size())
            return f;
        const bytes_t& frame = frames[at++];
        f.data = frame.data();
        f.size = frame.size();
        f.answer = frame[0] != 0;
        f.timeout_ms = 200;
        f.rest_ms = 100;
        return f;
    }
    size_t answer_length(const uint8_t*, size_t) const override { return 7; }
    void answered(const uint8_t*, size_t n, int64_t) override { answers.push_back(n); }
    void no_answer() override { ++silences; }
    void unavailable() override {}
};

// The next frame the master sends, and when its first byte came; empty after 3 s of nothing.
bytes_t read_frame(int fd, size_t size, steady_clock_t::time_point& first) {
    bytes_t got;
    while (got.size() < size) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 3000) != 1)
            return bytes_t();
        uint8_t buf[64];
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n <= 0)
            return bytes_t();
        if (got.empty())
            first = steady_clock_t::now();
        got.insert(got.end(), buf, buf + n);
    }
    return got;
}

} // namespace

BOOST_FIXTURE_TEST_SUITE(serial_master, CLoopFixture)

BOOST_AUTO_TEST_CASE(silences_between_frames, *boost::unit_test::precondition(CPtyPair::needed)) {
    CPtyPair pty;
    BOOST_REQUIRE(pty.ok());
    CScript script;
    const bytes_t read = rtu({5, 3, 0, 0, 0, 1});
    const bytes_t write = rtu({0, 6, 0, 1, 0, 7});
    script.frames = {read, write, read, read};
    CSerialMaster::options_t options;
    // 3.5 characters of 10 bits at 1200 baud: 29 ms, long enough to tell from scheduling.
    options.line.baud = 1200;
    auto master = CSerialMaster::create(manager, script, pty.end_a(), options);
    BOOST_REQUIRE(master->is_open());
    manager.add(master);
    master->start();
    const auto gap = master->frame_gap();
    BOOST_TEST(std::chrono::duration_cast<std::chrono::microseconds>(gap).count() >= 29000);

    const int fd = ::open(pty.end_b().c_str(), O_RDWR | O_NOCTTY);
    BOOST_REQUIRE(fd >= 0);
    bytes_t first_frame, broadcast, after_broadcast;
    steady_clock_t::time_point answered_at, broadcast_at, next_at, unused;
    BOOST_TEST(run_with([&] {
        first_frame = read_frame(fd, read.size(), unused);
        // The answer with a pause of twice the silence after its third byte: its length is
        // known by then, so the pause does not end it.
        const bytes_t answer = rtu({5, 3, 2, 0, 1});
        if (::write(fd, answer.data(), 3) != 3)
            return;
        std::this_thread::sleep_for(2 * gap);
        if (::write(fd, answer.data() + 3, 4) != 4)
            return;
        answered_at = steady_clock_t::now();
        broadcast = read_frame(fd, write.size(), broadcast_at);
        after_broadcast = read_frame(fd, read.size(), next_at);
        // The last one is left unanswered.
        read_frame(fd, read.size(), unused);
        eventually([&] { return script.silences == 1; });
    }));
    ::close(fd);
    master->close();
    BOOST_TEST(first_frame == read);
    BOOST_TEST(broadcast == write);
    BOOST_TEST(after_broadcast == read);
    BOOST_TEST(script.answers == std::vector<size_t>{7});
    BOOST_TEST(script.silences == 1);
    // 3.5 characters of silence after the answer's last byte...
    BOOST_TEST((broadcast_at - answered_at >= gap));
    // ...and the broadcast's rest after it.
    BOOST_TEST((next_at - broadcast_at >= std::chrono::milliseconds(100)));
}

BOOST_AUTO_TEST_SUITE_END()
