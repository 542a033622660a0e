// Fuzz target: bytes on an RTU over TCP connection, handed to its protocol handler as the
// connection hands them (whole, or in pieces of a few bytes): the real handler, request runner
// and store access on the sample store, with units 1 and 17 on RTU over TCP. The first byte
// picks the mode and the piece size.
// - Raw: the rest of the input as it is. Every answer must be a whole RTU frame with a good
//   CRC, of the length its function gives, answering a request found in the input (by the
//   request layout, written here on its own) past the one answered before, never address 0.
// - Clean: the rest describes requests of every function the server answers, for units 1, 17,
//   9 (nobody) and 0 (broadcast), which are sent with their CRCs. Every one but the
//   broadcasts must be answered, in order; the transport counts each as a message, none as a
//   checksum error, and those for 9 and 0 as unknown units.
#include "support/fuzz_input.h"
#include "support/fuzz_log.h"
#include "support/fuzz_server.h"
#include "support/rtu_layout.h"

#include "modbus/handler/modbus_rtu_over_tcp_protocol_handler.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

using bytes_t = std::vector<uint8_t>;

const char* const units_json = R"({"Software": {"Data Servers": {"Modbus": {"Interface Type": {
  "RTU over TCP": {"Port": {"Value": {"$type": "uint", "$value": 1}}, "Mappings": {
    "Unit1": {"Slave ID": {"Value": {"$type": "uint", "$value": 1}},
              "Device Path": {"Value": "/Devices/UPS"},
              "EDS Paths": {"Value": "@DATA@/eds/ups.eds;@DATA@/eds/ups_extra.eds"}},
    "Unit17": {"Slave ID": {"Value": {"$type": "uint", "$value": 17}},
               "Device Path": {"Value": "/Devices/UPS2"},
               "EDS Paths": {"Value": "@DATA@/eds/ups.eds"}}}}}}}}})";

void fail(const char* what, size_t answer) {
    std::fprintf(stderr, "rtu_over_tcp_stream: answer %zu: %s\n", answer, what);
    std::abort();
}

// The length of a whole normal answer of function f (address, PDU, CRC) whose bytes are at
// a; 0 when it cannot be told.
size_t answer_length(const bytes_t& a) {
    if (a.size() < 3)
        return 0;
    switch (a[1]) {
    case 1:
    case 2:
    case 3:
    case 4:
    case 17:
    case 23:
        return 5u + a[2];
    case 5:
    case 6:
    case 8:
    case 11:
    case 15:
    case 16:
        return 8;
    case 22:
        return 10;
    default:
        return 0;
    }
}

void check_frame(const bytes_t& a, size_t i) {
    if (a.size() < 5 || a.size() > 256)
        fail("of an impossible length", i);
    if (!rtu_layout::crc_holds(a.data(), a.size()))
        fail("bad CRC", i);
    if (a[0] == 0)
        fail("a broadcast answered", i);
    if ((a[1] & 0x80) != 0) {
        if (a.size() != 5 || a[2] == 0 || a[2] > 0x0B)
            fail("malformed exception answer", i);
    } else {
        const size_t want = answer_length(a);
        if (want != 0 && a.size() != want)
            fail("normal answer of the wrong length", i);
    }
}

// The requests: each function answered, with the fields that follow it from the input.
bytes_t make_request(CFuzzInput& in, uint8_t address) {
    static const uint8_t functions[] = {1, 2, 3, 4, 5, 6, 8, 11, 15, 16, 17, 22, 23, 43};
    bytes_t f{address, functions[in.pick(sizeof functions)]};
    switch (f[1]) {
    case 15:
    case 16:
    case 23: {
        const size_t fixed = f[1] == 23 ? 8 : 4;
        for (size_t i = 0; i < fixed; ++i)
            f.push_back(in.u8());
        const uint8_t count = in.u8() % 64;
        f.push_back(count);
        for (size_t i = 0; i < count; ++i)
            f.push_back(in.u8());
        break;
    }
    default:
        // The fixed layouts: the length less address, function code and CRC.
        f.resize(rtu_layout::request_length(f.data(), f.size()) - 2);
        for (size_t i = 2; i < f.size(); ++i)
            f[i] = in.u8();
        break;
    }
    const uint16_t crc = rtu_layout::crc16(f.data(), f.size());
    f.push_back(static_cast<uint8_t>(crc & 0xFF));
    f.push_back(static_cast<uint8_t>(crc >> 8));
    return f;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static CFuzzServer* server = [] {
        fuzz_quiet_logs();
        return new CFuzzServer(units_json);
    }();
    CFuzzInput in(data, size);
    const uint8_t mode = in.u8();
    const bool clean = (mode & 0x80) != 0;
    const size_t piece = mode & 0x0F; // 0: all at once
    bytes_t stream;
    std::vector<uint8_t> addresses;
    if (clean) {
        static const uint8_t choice[] = {1, 17, 1, 17, 9, 0};
        while (in.left() > 0) {
            const uint8_t address = choice[in.pick(sizeof choice)];
            const bytes_t f = make_request(in, address);
            stream.insert(stream.end(), f.begin(), f.end());
            addresses.push_back(address);
        }
    } else {
        stream.assign(data + (size > 0 ? 1 : 0), data + size);
    }
    const CTransportCounters before = server->rtu_over_tcp_counters;
    std::vector<bytes_t> answers;
    // A connection hands its handler bytes only when there are some.
    if (!stream.empty()) {
        CModbusRtuOverTcpProtocolHandler handler(server->services());
        answers = server->exchange(handler, stream.data(), stream.size(), piece);
    }
    const CTransportCounters& after = server->rtu_over_tcp_counters;
    if (after.open != before.open)
        fail("the connection still counts as open", 0);
    const uint32_t messages = after.messages - before.messages;
    const uint32_t bad = after.checksum_errors - before.checksum_errors;
    const uint32_t unknown = after.unknown_units - before.unknown_units;
    if (bad > messages || unknown > messages)
        fail("more checksum errors or unknown units than messages", 0);

    // Each answer answers a request of the stream past the last one answered.
    size_t pos = 0;
    for (size_t i = 0; i < answers.size(); ++i) {
        const bytes_t& a = answers[i];
        check_frame(a, i);
        const uint8_t function = a[1] & 0x7F;
        while (pos + 4 <= stream.size()) {
            const uint8_t* f = stream.data() + pos;
            const size_t length = rtu_layout::request_length(f, stream.size() - pos);
            if (f[0] == a[0] && f[1] == function && length != 0 && length <= stream.size() - pos &&
                rtu_layout::crc_holds(f, length))
                break;
            ++pos;
        }
        if (pos + 4 > stream.size())
            fail("answers no request of the input (or out of order)", i);
        pos += rtu_layout::request_length(stream.data() + pos, stream.size() - pos);
    }
    if (clean) {
        size_t unanswered = 0, strangers = 0;
        for (const uint8_t address : addresses) {
            unanswered += address == 0;
            strangers += address == 0 || address == 9;
        }
        if (answers.size() != addresses.size() - unanswered)
            fail("a request was left unanswered", answers.size());
        if (messages != addresses.size() || bad != 0 || unknown != strangers)
            fail("the transport miscounted its messages", answers.size());
    }
    if (std::getenv("FUZZ_LOG"))
        std::fprintf(stderr, "rtu_over_tcp_stream: %zu answers, %u messages, %u bad CRCs\n",
                     answers.size(), messages, bad);
    return 0;
}
