// Fuzz target: datagrams sent to the Modbus/UDP port, each handed whole to one protocol
// handler as the listener hands them: the real handler, request runner and store access on the
// sample store (TCP units 1 and 2). The input is a run of datagrams, each a length (two bytes,
// up to 511) and its bytes. For every datagram, judged here from its bytes:
// - one whose MBAP length field disagrees with its size is dropped unanswered and counted as
//   dropped; any other is counted as a message;
// - one with another protocol id than 0 gets no answer; any other gets exactly one, an MBAP
//   frame of at most 260 bytes whose length field matches its size, echoing the request's
//   transaction id, protocol id and unit id, with its function code or the exception form;
// - answers with exception 10 are as many as the unknown units counted.
#include "support/fuzz_input.h"
#include "support/fuzz_log.h"
#include "support/fuzz_server.h"

#include "modbus/handler/modbus_udp_protocol_handler.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

using bytes_t = std::vector<uint8_t>;

void fail(const char* what, size_t datagram) {
    std::fprintf(stderr, "udp_datagram: datagram %zu: %s\n", datagram, what);
    std::abort();
}

size_t be16(const uint8_t* p) {
    return size_t(p[0]) << 8 | p[1];
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static CFuzzServer* server = [] {
        fuzz_quiet_logs();
        return new CFuzzServer;
    }();
    CFuzzInput in(data, size);
    // One handler for all, as the listener reuses a handler that waits for nothing.
    CModbusUdpProtocolHandler handler(server->services());
    size_t unknown_answers = 0;
    const CTransportCounters before = server->udp_counters;
    size_t messages = 0, dropped = 0;
    for (size_t i = 0; in.left() > 0; ++i) {
        const size_t n = in.u16() % 512;
        bytes_t datagram;
        while (datagram.size() < n && in.left() > 0)
            datagram.push_back(in.u8());
        const bool whole = datagram.size() >= 8 && be16(&datagram[4]) + 6 == datagram.size();
        if (whole)
            ++messages;
        else
            ++dropped;
        const std::vector<bytes_t> answers =
            server->datagram(handler, datagram.data(), datagram.size());
        const bool answerable = whole && be16(&datagram[2]) == 0;
        if (answers.size() != (answerable ? 1u : 0u))
            fail(answerable ? "not answered once" : "answered", i);
        if (!answerable)
            continue;
        const bytes_t& a = answers.front();
        if (a.size() < 9 || a.size() > 260 || be16(&a[4]) + 6 != a.size())
            fail("the answer is no MBAP frame of at most 260 bytes", i);
        if (!std::equal(a.begin(), a.begin() + 4, datagram.begin()) || a[6] != datagram[6])
            fail("the answer does not echo the request's header", i);
        if ((a[7] | 0x80) != (datagram[7] | 0x80))
            fail("the answer has another function code", i);
        if ((a[7] & 0x80) != 0 && (a.size() != 9 || a[8] == 0 || a[8] > 0x0B))
            fail("malformed exception answer", i);
        unknown_answers += (a[7] & 0x80) != 0 && a[8] == 10;
    }
    const CTransportCounters& after = server->udp_counters;
    if (after.messages - before.messages != messages || after.dropped - before.dropped != dropped)
        fail("messages or dropped datagrams miscounted", 0);
    if (after.unknown_units - before.unknown_units != unknown_answers)
        fail("unknown units miscounted", 0);
    return 0;
}
