#include "io/serial/serial_connection.h"
#include "modbus/core/modbus_function.h"
#include "support/loop_fixture.h"
#include "support/pty_pair.h"
#include "support/pty_peer.h"
#include "support/subsystem_log.h"
#include "support/upper_case_handler.h"
#include "util/crc16.h"

#include <boost/test/unit_test.hpp>

#include <algorithm>
#include <cctype>

namespace {

using parity_t = CSerialConnection::parity_t;
using stop_bits_t = CSerialConnection::stop_bits_t;
using flow_ctrl_t = CSerialConnection::flow_ctrl_t;
using bytes_t = std::vector<uint8_t>;

constexpr uint8_t served = 0x11;
// At 1200 baud the 1.5-character silence is 13.75 ms and a character 8.3 ms, so a test
// frame needs well under `quiet` before it and `too_soon` is far inside the window.
constexpr uint32_t test_baud = 1200;
constexpr auto quiet = std::chrono::milliseconds(200);
constexpr auto too_soon = std::chrono::milliseconds(5);
// Silence that must count as a frame gap even when the line read the bytes before it late
// (an emulated or busy machine): the gap is reckoned from when they were read.
constexpr auto calm = std::chrono::milliseconds(500);
// Long enough for the loop to read a frame's first bytes on their own: a pty delivers a
// whole write at once, which at test_baud would look like bytes that began long ago.
constexpr auto settle = std::chrono::milliseconds(30);

bytes_t with_crc(bytes_t out) {
    uint16_t crc = crc16::initial;
    for (const uint8_t b : out)
        crc = crc16::step(crc, b);
    out.push_back(static_cast<uint8_t>(crc & 0xff));
    out.push_back(static_cast<uint8_t>(crc >> 8));
    return out;
}

bytes_t cat(bytes_t a, const bytes_t& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

bytes_t frame(uint8_t address, const std::string& text) {
    const uint8_t count = static_cast<uint8_t>(text.size());
    bytes_t out{address, 0x10, 0, 0, 0, static_cast<uint8_t>((count + 1) / 2), count};
    out.insert(out.end(), text.begin(), text.end());
    return with_crc(out);
}

// The framing of a line that serves address 0x11 with function 16.
CSerialConnection::framing_t test_framing() {
    CSerialConnection::framing_t framing;
    framing.served.set(served);
    framing.length = &CModbusFunction::rtu_length;
    return framing;
}

// A frame is a write of multiple registers (function 16) whose data is text; the answer is
// the same request with the text in upper case.
std::unique_ptr<CProtocolHandler> frame_handler(CIoManager& manager, CHandlerLog& log, int delay) {
    return std::make_unique<CUpperCaseHandler>(
        manager.service(), log, delay,
        [](iobuf_const_iter_t begin, iobuf_const_iter_t end, std::string& text) {
            // The connection hands over whole frames only.
            const auto size = end - begin;
            text = size >= 9 && size == 9 + begin[6] ? std::string(begin + 7, end - 2)
                                                     : std::string("!not a whole frame");
            return static_cast<size_t>(size);
        },
        [](const std::string& text) { return frame(served, text); });
}

bytes_t answer(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), ::toupper);
    return frame(served, text);
}

void pause(std::chrono::milliseconds ms) {
    std::this_thread::sleep_for(ms);
}

// A serial connection on end a of a pty pair; the test talks on end b.
struct CLineFixture : CLoopFixture {
    explicit CLineFixture(int delay_ms = 0) : delay(delay_ms) {
        BOOST_REQUIRE(pty.ok());
        conn = CSerialConnection::create(manager, handler(), pty.end_a(), test_framing());
        BOOST_REQUIRE(conn->is_open());
        conn->set_baud_rate(test_baud);
        conn->set_flow_control(flow_ctrl_t::none);
        conn->set_char_size(8);
        conn->set_parity(parity_t::none);
        conn->set_stop_bits(stop_bits_t::one);
        conn->set_timing(test_baud, 8, parity_t::none, stop_bits_t::one);
        manager.add(conn);
        conn->start();
    }
    std::unique_ptr<CProtocolHandler> handler() { return frame_handler(manager, log, delay); }
    bool wait_for_actors(size_t count) {
        return eventually([&] { return in_loop([&] { return manager.actor_count(); }) == count; });
    }

    CHandlerLog log;
    int delay;
    CPtyPair pty;
    std::shared_ptr<CSerialConnection> conn;
};

const auto needs_socat = boost::unit_test::precondition(CPtyPair::needed);

} // namespace

BOOST_AUTO_TEST_SUITE(serial_io)

BOOST_AUTO_TEST_CASE(rtu_timing_of_frame_formats) {
    const struct {
        uint32_t baud;
        int64_t t15;
    } bauds[] = {{9600, 1718750}, {19200, 859375}, {38400, 429687}, {115200, 143229}};
    const struct {
        unsigned size;
        parity_t parity;
        stop_bits_t stop;
        unsigned bits;
    } formats[] = {{8, parity_t::none, stop_bits_t::one, 10},
                   {8, parity_t::even, stop_bits_t::two, 12},
                   {7, parity_t::odd, stop_bits_t::one, 10},
                   {8, parity_t::odd, stop_bits_t::one_and_half, 11},
                   {7, parity_t::none, stop_bits_t::two, 10}};
    for (const auto& b : bauds)
        for (const auto& f : formats) {
            const auto t = CSerialConnection::rtu_timing(b.baud, f.size, f.parity, f.stop);
            BOOST_TEST(t.t15 == b.t15, b.baud << " baud");
            BOOST_TEST(t.char_bits == f.bits, f.size << " bits");
        }
    const auto timing = &CSerialConnection::rtu_timing;
    BOOST_TEST(timing(9600, 8, parity_t::none, stop_bits_t::one).char_time == 1041666);
    BOOST_TEST(timing(115200, 8, parity_t::even, stop_bits_t::two).char_time == 104166);
    // Settings outside the usual ranges still give sane timing.
    BOOST_TEST(timing(0, 8, parity_t::none, stop_bits_t::one).t15 == 1718750);
    BOOST_TEST(timing(9600, 40, static_cast<parity_t>(9), static_cast<stop_bits_t>(9)).char_bits ==
               10u);
}

BOOST_AUTO_TEST_CASE(missing_device_is_reported) {
    CLoopFixture loop;
    CHandlerLog log;
    const auto handler = [&] { return frame_handler(loop.manager, log, 0); };
    CSubsystemLog capture(SS_SERIAL_IO, 0);
    auto missing =
        CSerialConnection::create(loop.manager, handler(), "/nonexistent/ttyS9", test_framing());
    auto not_tty = CSerialConnection::create(loop.manager, handler(), "/dev/null", test_framing());
    BOOST_TEST(!missing->is_open());
    BOOST_TEST(!not_tty->is_open());
    // Settings on a port that did not open are refused, never thrown.
    missing->set_baud_rate(9600);
    missing->set_timing(19200, 8, parity_t::even, stop_bits_t::one);
    const std::string text = capture.text();
    for (const char* said : {"Couldn't open serial port '/nonexistent/ttyS9': ",
                             "Couldn't open serial port '/dev/null': ",
                             "Couldn't set baud rate 9600 on '/nonexistent/ttyS9'"})
        BOOST_TEST(text.find(said) != std::string::npos, text);
}

BOOST_AUTO_TEST_CASE(hunting_drops_unframed_foreign_and_refused_bytes, *needs_socat) {
    CLineFixture f;
    const bool finished = f.run_with([&] {
        CPtyPeer peer(f.pty.end_b());
        BOOST_REQUIRE(peer.ok());
        pause(quiet);
        // Noise, then frames each too close to the bytes before: every one is dropped and
        // restarts the wait for silence.
        BOOST_TEST(peer.send({0x55, 0x01, 0x02}));
        for (const char* text : {"a", "b", "c"}) {
            pause(too_soon);
            BOOST_TEST(peer.send(frame(served, text)));
        }
        BOOST_TEST(peer.silent_for(calm.count()));
        BOOST_TEST(peer.send(frame(served, "d")));
        BOOST_TEST(peer.receive(10) == answer("d"));
        pause(calm);
        BOOST_TEST(peer.send(frame(0x22, "other")));
        BOOST_TEST(peer.silent_for(calm.count()));
        // The handler refuses this one; what follows at once is not a frame start.
        BOOST_TEST(peer.send(frame(served, "!bad")));
        pause(too_soon);
        BOOST_TEST(peer.send(frame(served, "soon")));
        BOOST_TEST(peer.silent_for(calm.count()));
        BOOST_TEST(peer.send(frame(served, "later")));
        BOOST_TEST(peer.receive(14) == answer("later"));
        // Noise that starts like the longest frame, then never stops, cannot grow the buffer.
        pause(quiet);
        BOOST_TEST(peer.send({served, 0x10, 0, 0, 0, 0x7f, 0xff}));
        pause(settle);
        for (int i = 0; i < 20; ++i) {
            BOOST_TEST(peer.send(bytes_t(100, 'n')));
            pause(too_soon);
        }
        BOOST_TEST(peer.silent_for(quiet.count()));
        BOOST_TEST(peer.send(frame(served, "ok")));
        BOOST_TEST(peer.receive(11) == answer("ok"));
    });
    BOOST_TEST(finished);
    BOOST_TEST(f.log.events == (std::vector<std::string>{"d", "!bad", "later", "ok"}),
               boost::test_tools::per_element());
    BOOST_TEST(f.log.max_unread <= CRtuFramer::max_frame);
}

BOOST_AUTO_TEST_CASE(pieces_long_frames_and_back_to_back_requests, *needs_socat) {
    CLineFixture f;
    const std::string long_text(255, 'x');
    const bool finished = f.run_with([&] {
        CPtyPeer peer(f.pty.end_b());
        BOOST_REQUIRE(peer.ok());
        pause(quiet);
        // A request in pieces, each within the character timing of the one before.
        const bytes_t abc = frame(served, "abc");
        BOOST_TEST(peer.send(bytes_t(abc.begin(), abc.begin() + 2)));
        pause(too_soon);
        BOOST_TEST(peer.send(bytes_t(abc.begin() + 2, abc.begin() + 3)));
        pause(too_soon);
        BOOST_TEST(peer.send(bytes_t(abc.begin() + 3, abc.end())));
        BOOST_TEST(peer.receive(abc.size()) == answer("abc"));
        // The longest frame; the start comes alone, the rest in chunks.
        pause(quiet);
        const bytes_t big = frame(served, long_text);
        for (size_t i = 0; i < big.size(); i += (i == 0 ? 2 : 100)) {
            const size_t end = std::min(i + (i == 0 ? 2 : 100), big.size());
            BOOST_TEST(peer.send(bytes_t(big.begin() + static_cast<std::ptrdiff_t>(i),
                                         big.begin() + static_cast<std::ptrdiff_t>(end))));
            pause(i == 0 ? settle : too_soon);
        }
        BOOST_TEST(peer.receive(big.size()) == answer(long_text));
        // Two requests in one write: the second is served from the buffer after the first
        // answer, without waiting for silence. The pty hands both over at once, as if they
        // had taken 24 characters (200 ms) on the line: the silence before must be longer.
        pause(quiet * 2);
        BOOST_TEST(peer.send(cat(frame(served, "one"), frame(served, "two"))));
        const bytes_t both = cat(answer("one"), answer("two"));
        BOOST_TEST(peer.receive(both.size()) == both);
        // A line without wire time hands the master the answer at once, and a quick master
        // sends its next request sooner than the silence between frames: each is still served.
        for (const char* text : {"a", "b", "c", "d"}) {
            BOOST_TEST(peer.send(frame(served, text)));
            BOOST_TEST(peer.receive(answer(text).size()) == answer(text));
        }
    });
    BOOST_TEST(finished);
    BOOST_TEST(f.log.events ==
                   (std::vector<std::string>{"abc", long_text, "one", "two", "a", "b", "c", "d"}),
               boost::test_tools::per_element());
}

BOOST_AUTO_TEST_CASE(request_during_an_answer_is_kept, *needs_socat) {
    CLineFixture f(100);
    const bool finished = f.run_with([&] {
        CPtyPeer peer(f.pty.end_b());
        BOOST_REQUIRE(peer.ok());
        pause(quiet);
        BOOST_TEST(peer.send(frame(served, "first")));
        pause(std::chrono::milliseconds(30));
        BOOST_TEST(peer.send(frame(served, "second")));
        const bytes_t both = cat(answer("first"), answer("second"));
        BOOST_TEST(peer.receive(both.size()) == both);
    });
    BOOST_TEST(finished);
}

BOOST_AUTO_TEST_CASE(bad_settings_and_a_vanishing_line_end_nothing_else, *needs_socat) {
    CLineFixture f;
    CPtyPair other;
    BOOST_REQUIRE(other.ok());
    auto second = CSerialConnection::create(f.manager, f.handler(), other.end_a(), test_framing());
    BOOST_REQUIRE(second->is_open());
    CStderrCapture capture;
    second->set_baud_rate(12345);
    second->set_baud_rate(0);
    second->set_flow_control(static_cast<flow_ctrl_t>(7));
    second->set_char_size(9);
    second->set_parity(static_cast<parity_t>(3));
    second->set_stop_bits(stop_bits_t::one_and_half);
    const std::string text = capture.text();
    for (const char* refused :
         {"Couldn't set baud rate 12345", "Couldn't set baud rate 0", "Couldn't set flow control 7",
          "Couldn't set character size 9", "Couldn't set parity 3", "Couldn't set stop bits 1"})
        BOOST_TEST(text.find(refused) != std::string::npos, refused << " in " << text);
    second->set_timing(test_baud, 8, parity_t::none, stop_bits_t::one);
    f.manager.add(second);
    second->start();
    const bool finished = f.run_with([&] {
        CPtyPeer peer(other.end_b());
        BOOST_REQUIRE(peer.ok());
        BOOST_TEST(f.wait_for_actors(2));
        f.pty.stop();
        BOOST_TEST(f.wait_for_actors(1));
        BOOST_TEST(f.in_loop([&] { return f.manager.contains(second); }));
        pause(quiet);
        BOOST_TEST(peer.send(frame(served, "alive")));
        BOOST_TEST(peer.receive(14) == answer("alive"));
    });
    BOOST_TEST(finished);
}

BOOST_AUTO_TEST_SUITE_END()
