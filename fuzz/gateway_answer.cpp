// Fuzz target: what a slave behind a gateway line sends back. The input makes a request
// (its function code and data, as a master forwards it), the line's Retries, and then per
// try what the slave does: stays silent, or sends bytes that the line's port frames as
// CSerialMaster does (by the length the line reads from the first bytes, at most the longest
// frame, else by the silence after them). What must hold, checked here apart from the line:
// - the length the line reads from an answer's first bytes never changes as more come;
// - a frame taken for an answer or an exception has the slave's address, the request's
//   function (or its exception form), at most 256 bytes and a CRC that holds;
// - the request is answered once, after at most Retries + 1 tries: with the PDU of the last
//   frame taken (as the slave sent it), or else with exception 11; and that PDU fits a TCP
//   answer.
#include "support/fuzz_input.h"

#include "modbus/gateway/gateway_answer.h"
#include "modbus/gateway/gateway_line.h"

#include <cstdio>
#include <cstdlib>

namespace {

void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "gateway_answer: %s\n", what);
        std::abort();
    }
}

constexpr uint8_t slave = 5;

// The CRC, bit by bit as the application protocol gives it, apart from the server's tables.
bool crc_holds(const uint8_t* f, size_t n) {
    if (n < 3)
        return false;
    uint16_t crc = 0xFFFF;
    for (size_t i = 0; i + 2 < n; ++i) {
        crc ^= f[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001) : crc >> 1;
    }
    return f[n - 2] == (crc & 0xFF) && f[n - 1] == (crc >> 8);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CFuzzInput in(data, size);
    CGatewaySettings settings;
    settings.downstream.set(slave);
    settings.retries = in.u8() % 3;
    settings.dead_after = 0;
    CGatewayLine line("fuzz", settings);

    auto request = std::make_shared<CGatewayRequest>();
    request->unit = slave;
    // A forwarded request never has the exception bit, nor function 0.
    request->pdu.function = static_cast<uint8_t>(1 + in.u8() % 0x7f);
    const size_t request_bytes = in.u8() % 253;
    for (size_t i = 0; i < request_bytes && !in.empty(); ++i)
        request->pdu.data.push_back(in.u8());
    int completions = 0;
    request->done = [&completions] { ++completions; };
    line.submit(&line, request);
    const uint8_t function = request->pdu.function;

    std::vector<uint8_t> taken; // the last frame judged an answer or an exception
    unsigned tries = 0;
    for (;;) {
        const CBusClient::frame_t sent = line.next();
        if (sent.data == nullptr)
            break;
        check(++tries <= settings.retries + 1u, "more tries than Retries allows");
        check(sent.size >= 4 && sent.data[0] == slave && sent.data[1] == function &&
                  crc_holds(sent.data, sent.size),
              "the frame sent is not the request");
        const size_t n = in.u16() % 300;
        if (n == 0 || in.empty()) {
            line.no_answer();
            continue;
        }
        std::vector<uint8_t> frame;
        size_t length = 0;
        while (frame.size() < n && !in.empty()) {
            frame.push_back(in.u8());
            const size_t now = line.answer_length(frame.data(), frame.size());
            check(length == 0 || now == length, "the answer's length changed as bytes came");
            length = now;
            check(length == 0 || length == CGatewayAnswer::by_silence || length >= 5,
                  "an answer shorter than any frame");
            if (frame.size() == CGatewayAnswer::max_frame ||
                (length != 0 && length != CGatewayAnswer::by_silence && frame.size() >= length))
                break;
        }
        if (length != 0 && length != CGatewayAnswer::by_silence && length < frame.size())
            frame.resize(length);
        const CGatewayAnswer::verdict_t verdict =
            CGatewayAnswer::judge(sent.data, sent.size, frame.data(), frame.size());
        if (verdict == CGatewayAnswer::ANSWER || verdict == CGatewayAnswer::EXCEPTION) {
            check(frame.size() >= 5 && frame.size() <= 256, "an answer of an impossible length");
            check(crc_holds(frame.data(), frame.size()), "an answer with a bad CRC");
            check(frame[0] == slave, "an answer from another slave");
            check(frame[1] == (verdict == CGatewayAnswer::ANSWER ? function : function | 0x80),
                  "an answer to another function");
            taken = frame;
        }
        line.answered(frame.data(), frame.size(), 1000);
        if (!taken.empty())
            break;
    }
    check(line.next().data == nullptr, "the line goes on after the request is answered");
    check(completions == 1, "the request is not answered exactly once");
    const CModbusPdu& answer = request->pdu;
    check(answer.data.size() <= 252, "an answer too long for TCP");
    if (!taken.empty()) {
        check(answer.function == taken[1] &&
                  answer.data == std::vector<uint8_t>(taken.begin() + 2, taken.end() - 2),
              "the slave's answer was changed");
    } else {
        check(answer.function == (function | 0x80) && answer.data.size() == 1 &&
                  answer.data[0] == 11,
              "no answer taken, yet no exception 11");
    }
    const CDownstreamCounters* c = line.counters(slave);
    check(c != nullptr && c->requests == 1 &&
              c->timeouts + c->crc_errors + (taken.empty() ? 0 : 1) == tries,
          "the slave's counters disagree with the tries");
    return 0;
}
