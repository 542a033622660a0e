// Fuzz target: bytes sent by a Modbus TCP client, handed to the TCP protocol handler as its
// connection hands them: the real handler, request runner and store access, with the store
// worker and its loop, on the sample store. The bytes are handed over whole, the handler's
// actions followed (a wait runs the loop until the handler is woken), and everything sent back
// until the bytes are used up or the connection would be closed is checked:
// - the answers form a stream of complete MBAP frames of at most 260 bytes;
// - each echoes the header of a request of the input, in request order, never of one that
//   is to be dropped (another protocol id than 0), with its function code or the exception
//   form of it, and with the length its function code implies;
// - every complete request of protocol 0 with a function code is answered.
// A request that waits 20 seconds for its answer counts as a hang.
#include "support/fuzz_log.h"
#include "support/fuzz_server.h"

#include "modbus/handler/modbus_tcp_protocol_handler.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

struct CRequest {
    uint16_t tid, pid;
    uint8_t unit;
    int function;              // -1 for a frame too short to hold one
    std::vector<uint8_t> data; // the PDU after the function code
    bool may_answer;
    bool must_answer; // a complete frame of protocol 0 with a function code
};

uint16_t be16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

// The requests of the input as MBAP framing delimits them; a trailing incomplete frame is
// never answered and is left out.
std::vector<CRequest> frame_requests(const uint8_t* data, size_t size) {
    std::vector<CRequest> out;
    size_t pos = 0;
    while (size - pos >= 7) {
        const uint8_t* h = data + pos;
        CRequest r{be16(h), be16(h + 2), h[6], -1, {}, true, false};
        const size_t length = be16(h + 4);
        if (length == 1) {
            // A unit id and no function code: dropped unanswered.
            r.may_answer = false;
            out.push_back(r);
            pos += 7;
            continue;
        }
        if (length == 0) {
            // Holds no function code: answered as malformed or not at all.
            out.push_back(r);
            pos += 7;
            continue;
        }
        if (size - pos < 6 + length)
            break;
        r.function = h[7];
        r.data.assign(h + 8, h + 6 + length);
        r.may_answer = r.must_answer = r.pid == 0;
        out.push_back(r);
        pos += 6 + length;
    }
    return out;
}

void fail(const char* what, size_t offset) {
    std::fprintf(stderr, "tcp_request: answer at byte %zu: %s\n", offset, what);
    std::abort();
}

// The length a normal answer has for its request, or 0 when it cannot be told.
size_t expected_pdu_length(const CRequest& r, const uint8_t* pdu) {
    switch (r.function) {
    case 1:
    case 2:
    case 3:
    case 4:
    case 17:
    case 23:
        return 2u + pdu[1];
    case 5:
    case 6:
    case 15:
    case 16:
        return 5;
    case 22:
        return 7;
    case 8: // sub-function and data echoed, or a counter in place of the data
        return 1 + r.data.size();
    case 11:
        return 5;
    default:
        return 0;
    }
}

void check_answers(const std::vector<CRequest>& requests, const std::vector<uint8_t>& answer) {
    size_t next = 0, pos = 0;
    while (pos < answer.size()) {
        if (answer.size() - pos < 8)
            fail("shorter than a header and a function code", pos);
        const uint8_t* h = answer.data() + pos;
        const size_t length = be16(h + 4);
        if (length < 2 || length > 254)
            fail("length field out of 2..254", pos);
        if (answer.size() - pos < 6 + length)
            fail("frame cut short", pos);
        while (next < requests.size() &&
               !(requests[next].may_answer && requests[next].tid == be16(h) &&
                 requests[next].pid == be16(h + 2) && requests[next].unit == h[6])) {
            if (requests[next].must_answer)
                fail("a request before this answer was left unanswered", pos);
            ++next;
        }
        if (next == requests.size())
            fail("echoes no answerable request (or answers out of order)", pos);
        const CRequest& r = requests[next++];
        const uint8_t* pdu = h + 7;
        const size_t pdu_length = length - 1;
        if ((pdu[0] & 0x80) != 0) {
            if (pdu_length != 2 || pdu[1] == 0 || pdu[1] > 0x0B)
                fail("malformed exception answer", pos);
            if (r.function >= 0 && pdu[0] != (r.function | 0x80))
                fail("exception for another function code", pos);
        } else {
            if (pdu[0] != r.function)
                fail("normal answer with another function code", pos);
            const size_t want = expected_pdu_length(r, pdu);
            if (want != 0 && pdu_length != want)
                fail("normal answer of the wrong length", pos);
            if ((r.function == 5 || r.function == 6) &&
                r.data != std::vector<uint8_t>(pdu + 1, pdu + 5))
                fail("write of one item not echoed", pos);
            if ((r.function == 15 || r.function == 16) &&
                (r.data.size() < 4 || !std::equal(pdu + 1, pdu + 5, r.data.begin())))
                fail("write of several items does not echo address and count", pos);
        }
        pos += 6 + length;
    }
    for (; next < requests.size(); ++next)
        if (requests[next].must_answer)
            fail("a request was left unanswered", pos);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static CFuzzServer* server = [] {
        fuzz_quiet_logs();
        return new CFuzzServer;
    }();
    CModbusTcpProtocolHandler handler(server->services());
    std::vector<uint8_t> answer;
    for (const auto& one : server->exchange(handler, data, size))
        answer.insert(answer.end(), one.begin(), one.end());
    if (std::getenv("FUZZ_LOG")) {
        std::fprintf(stderr, "tcp_request: answer of %zu bytes:", answer.size());
        for (const uint8_t b : answer)
            std::fprintf(stderr, " %02X", b);
        std::fprintf(stderr, "\n");
    }
    check_answers(frame_requests(data, size), answer);
    return 0;
}
