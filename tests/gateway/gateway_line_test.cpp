// The gateway's side of the bus without the bus: what it makes of the bytes a slave sends
// back (CGatewayAnswer), and how a line orders, retries and answers its requests
// (CGatewayLine, driven here as its serial port would drive it).
#include "modbus/gateway/gateway_answer.h"
#include "modbus/gateway/gateway_line.h"
#include "util/crc16.h"

#include <boost/test/unit_test.hpp>

#include <vector>

namespace {

using bytes_t = std::vector<uint8_t>;

bytes_t rtu(bytes_t frame) {
    uint16_t crc = crc16::initial;
    for (const uint8_t b : frame)
        crc = crc16::step(crc, b);
    frame.push_back(static_cast<uint8_t>(crc & 0xff));
    frame.push_back(static_cast<uint8_t>(crc >> 8));
    return frame;
}

CGatewayAnswer::verdict_t judge(const bytes_t& request, const bytes_t& answer) {
    return CGatewayAnswer::judge(request.data(), request.size(), answer.data(), answer.size());
}

size_t length(const bytes_t& request, const bytes_t& answer, size_t n) {
    return CGatewayAnswer::frame_length(request.data(), request.size(), answer.data(), n);
}

} // namespace

BOOST_AUTO_TEST_SUITE(gateway_answer)

BOOST_AUTO_TEST_CASE(verdicts) {
    const bytes_t read = rtu({5, 3, 0, 0, 0, 2});
    const bytes_t answer = rtu({5, 3, 4, 0, 1, 0, 2});
    BOOST_TEST(judge(read, answer) == CGatewayAnswer::ANSWER);
    BOOST_TEST(judge(read, rtu({5, 0x83, 2})) == CGatewayAnswer::EXCEPTION);
    bytes_t flipped = answer;
    flipped[3] ^= 1;
    BOOST_TEST(judge(read, flipped) == CGatewayAnswer::BAD_CRC);
    // Good CRCs, but no answer to this request: another slave, another function, a byte count
    // that disagrees with the length, an exception with more than its code, too short.
    BOOST_TEST(judge(read, rtu({6, 3, 4, 0, 1, 0, 2})) == CGatewayAnswer::GARBLED);
    BOOST_TEST(judge(read, rtu({5, 4, 4, 0, 1, 0, 2})) == CGatewayAnswer::GARBLED);
    BOOST_TEST(judge(read, rtu({5, 3, 6, 0, 1, 0, 2})) == CGatewayAnswer::GARBLED);
    BOOST_TEST(judge(read, rtu({5, 0x83, 2, 0})) == CGatewayAnswer::GARBLED);
    BOOST_TEST(judge(read, rtu({5, 3})) == CGatewayAnswer::GARBLED);
    BOOST_TEST(judge(read, bytes_t{5}) == CGatewayAnswer::GARBLED);
    BOOST_TEST(judge(read, bytes_t{}) == CGatewayAnswer::GARBLED);
    // The request's own echo, as a line that hears itself hands it back, is no answer.
    BOOST_TEST(judge(read, read) == CGatewayAnswer::GARBLED);
    // A function the gateway knows no layout of goes back as the slave sent it.
    const bytes_t vendor = rtu({5, 0x41, 1, 2, 3});
    BOOST_TEST(judge(vendor, rtu({5, 0x41, 9})) == CGatewayAnswer::ANSWER);
}

BOOST_AUTO_TEST_CASE(frame_lengths) {
    const bytes_t read = rtu({5, 3, 0, 0, 0, 2});
    const bytes_t answer = rtu({5, 3, 4, 0, 1, 0, 2});
    BOOST_TEST(length(read, answer, 1) == 0u);
    BOOST_TEST(length(read, answer, 2) == 0u); // the byte count is still to come
    BOOST_TEST(length(read, answer, 3) == answer.size());
    BOOST_TEST(length(read, rtu({5, 0x83, 2}), 2) == 5u);
    BOOST_TEST(length(read, rtu({5, 16, 0, 1, 0, 2}), 2) == 8u);
    BOOST_TEST(length(read, rtu({5, 22}), 2) == 10u);
    // Diagnostics echo the request, whatever its length.
    const bytes_t echo = rtu({5, 8, 0, 0, 1, 2, 3, 4});
    BOOST_TEST(length(echo, echo, 2) == echo.size());
    const bytes_t fifo = rtu({5, 24, 0x01, 0x02, 0});
    BOOST_TEST(length(fifo, fifo, 4) == 6u + 0x102);
    BOOST_TEST(length(read, rtu({5, 43, 14, 1}), 2) == CGatewayAnswer::by_silence);
}

BOOST_AUTO_TEST_SUITE_END()

namespace {

struct CLineFixture {
    CLineFixture() {
        settings.downstream.set(5).set(6);
        settings.retries = 1;
        settings.dead_after = 3;
        settings.retry_dead_s = 3600;
        line.reset(new CGatewayLine("COM2", settings));
        line->set_defer([this](std::function<void()> done) { deferred.push_back(done); });
    }

    // A request for unit as a connection's handler submits it.
    std::shared_ptr<CGatewayRequest> submit(const void* source, uint8_t unit, bytes_t pdu) {
        auto request = std::make_shared<CGatewayRequest>();
        request->unit = unit;
        request->pdu.function = pdu[0];
        request->pdu.data.assign(pdu.begin() + 1, pdu.end());
        // Not the shared pointer: a request holding itself would never be freed.
        CGatewayRequest* const raw = request.get();
        request->done = [this, raw] { done.push_back(raw); };
        line->submit(source, request);
        return request;
    }
    // The frame the port would send now; empty when none.
    bytes_t next() {
        const CBusClient::frame_t f = line->next();
        return f.data == nullptr ? bytes_t() : bytes_t(f.data, f.data + f.size);
    }
    void answer(const bytes_t& frame) { line->answered(frame.data(), frame.size(), 1500); }
    void run_deferred() {
        for (auto& d : deferred)
            d();
        deferred.clear();
    }
    static bytes_t pdu_of(const CGatewayRequest& r) {
        bytes_t out{r.pdu.function};
        out.insert(out.end(), r.pdu.data.begin(), r.pdu.data.end());
        return out;
    }

    CGatewaySettings settings;
    std::unique_ptr<CGatewayLine> line;
    std::vector<std::function<void()>> deferred;
    std::vector<CGatewayRequest*> done;
    int a = 0, b = 0;
};

} // namespace

BOOST_FIXTURE_TEST_SUITE(gateway_line, CLineFixture)

BOOST_AUTO_TEST_CASE(answers_go_back_as_sent_after_retries) {
    auto request = submit(&a, 5, {3, 0, 0, 0, 2});
    const bytes_t frame = next();
    BOOST_TEST(frame == rtu({5, 3, 0, 0, 0, 2}));
    bytes_t bad = rtu({5, 3, 4, 0, 1, 0, 2});
    bad.back() ^= 0xff;
    answer(bad);
    // Tried again, once: the same frame.
    BOOST_TEST(next() == frame);
    answer(rtu({5, 0x83, 2}));
    // Completed only through the deferral, never from inside the port's call.
    BOOST_TEST(done.empty());
    run_deferred();
    BOOST_REQUIRE(done.size() == 1u);
    BOOST_TEST(pdu_of(*request) == (bytes_t{0x83, 2}));
    const CDownstreamCounters& c = *line->counters(5);
    BOOST_TEST((c.requests == 1u && c.crc_errors == 1u && c.exceptions == 1u && c.answers == 0u));
    BOOST_TEST((c.last_us == 1500u && c.mean_us == 1500u));

    // Time-outs on every try: exception 11 after the retry.
    request = submit(&a, 5, {6, 0, 1, 0, 9});
    BOOST_TEST(!next().empty());
    line->no_answer();
    BOOST_TEST(!next().empty());
    line->no_answer();
    BOOST_TEST(next().empty());
    run_deferred();
    BOOST_TEST(pdu_of(*request) == (bytes_t{0x86, 11}));
    BOOST_TEST(line->counters(5)->timeouts == 2u);
}

BOOST_AUTO_TEST_CASE(sources_take_turns) {
    // Source a has a broadcast and a request waiting before b's request comes.
    CModbusPdu write;
    write.function = 6;
    write.data = {0, 1, 0, 7};
    line->broadcast(&a, write);
    auto a_request = submit(&a, 5, {3, 0, 0, 0, 1});
    auto b_request = submit(&b, 6, {3, 0, 0, 0, 1});
    const CBusClient::frame_t sent = line->next();
    BOOST_TEST(bytes_t(sent.data, sent.data + sent.size) == rtu({0, 6, 0, 1, 0, 7}));
    // Nobody answers a broadcast: the bus rests after it instead.
    BOOST_TEST((sent.answer == false && sent.rest_ms == line->settings().turnaround_delay_ms));
    BOOST_TEST(next()[0] == 6); // b's turn before a's second
    answer(rtu({6, 3, 2, 0, 0}));
    BOOST_TEST(next()[0] == 5);
    // A request whose connection went away is dropped, not sent.
    a_request->state = CGatewayRequest::ABANDONED;
    auto a_next = submit(&a, 5, {3, 0, 9, 0, 1});
    a_next->state = CGatewayRequest::ABANDONED;
    answer(rtu({5, 3, 2, 0, 0}));
    BOOST_TEST(next().empty());
    run_deferred();
    BOOST_TEST(done.size() == 1u);
    BOOST_TEST(done[0] == b_request.get());
}

BOOST_AUTO_TEST_CASE(dead_slaves_and_lost_lines) {
    settings.retries = 0;
    line.reset(new CGatewayLine("COM2", settings));
    line->set_defer([this](std::function<void()> d) { deferred.push_back(d); });
    for (int i = 0; i < 3; ++i) {
        submit(&a, 6, {3, 0, 0, 0, 1});
        BOOST_TEST(!next().empty());
        line->no_answer();
    }
    // Dead: answered at once, without the bus, while its neighbour still goes on it.
    auto dead = submit(&a, 6, {3, 0, 0, 0, 1});
    auto alive = submit(&b, 5, {3, 0, 0, 0, 1});
    BOOST_TEST(next()[0] == 5);
    run_deferred();
    BOOST_TEST(pdu_of(*dead) == (bytes_t{0x83, 11}));

    // The port is gone: what waits and what comes get exception 10.
    auto waiting = submit(&a, 6, {4, 0, 0, 0, 1});
    line->unavailable();
    auto later = submit(&a, 5, {4, 0, 0, 0, 1});
    BOOST_TEST(next().empty());
    run_deferred();
    BOOST_TEST(pdu_of(*alive) == (bytes_t{0x83, 10}));
    BOOST_TEST(pdu_of(*waiting) == (bytes_t{0x84, 10}));
    BOOST_TEST(pdu_of(*later) == (bytes_t{0x84, 10}));
}

BOOST_AUTO_TEST_SUITE_END()
