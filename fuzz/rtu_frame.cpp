// Fuzz target: RTU frame hunting on a serial line. The input configures the framer (the
// silence between frames, one more served slave address besides 1 and 17) and then gives
// byte after byte with the gap before it, now and then a hunt() or an expect_frame() as the
// connection calls them around its answers. Every frame the framer returns must follow the
// line's rules, checked here independently of it: a served address, a supported function, the
// length its function implies, a CRC that holds, and a silence (or expect_frame) before its
// first byte.
#include "support/fuzz_input.h"

#include "io/serial/rtu_framer.h"
#include "modbus/core/modbus_function.h"

#include <cstdio>
#include <cstdlib>
#include <limits>

namespace {

void check(bool ok, const char* what, size_t at) {
    if (!ok) {
        std::fprintf(stderr, "rtu_frame: byte %zu: %s\n", at, what);
        std::abort();
    }
}

uint16_t crc16(const uint8_t* p, size_t n) {
    uint16_t crc = 0xFFFF;
    for (size_t i = 0; i < n; ++i) {
        crc ^= p[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001) : crc >> 1;
    }
    return crc;
}

struct CByte {
    int64_t gap;
    bool start_allowed; // expect_frame() came just before it
};

// The length of an RTU request of f's function (address, PDU, CRC), as the Modbus
// application protocol lays the requests out; 0 for a function the server does not answer.
size_t request_frame_length(const std::vector<uint8_t>& f) {
    switch (f[1]) {
    case 1:
    case 2:
    case 3:
    case 4:
    case 5:
    case 6:
    case 8:
        return 8;
    case 15:
    case 16:
        return 9u + f[6];
    case 11:
    case 17:
        return 4;
    case 22:
        return 10;
    case 23:
        return f.size() > 10 ? 13u + f[10] : 0;
    case 43:
        return 7;
    default:
        return 0;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool log = std::getenv("FUZZ_LOG") != nullptr;
    CFuzzInput in(data, size);
    // 1.5 characters lie between about 60 us (115200 baud) and 2 ms (9600 baud, 11 bits).
    const int64_t silence = 1 + in.u16() % 4000;
    std::bitset<256> served;
    served.set(1).set(17).set(in.u8());
    CRtuFramer framer;
    const int64_t frame_break = silence * 7 / 3;
    framer.configure(silence, frame_break, served, CModbusFunction::rtu_length);

    std::vector<CByte> line;
    bool expect = false;
    while (in.left() >= 2) {
        const uint8_t code = in.u8();
        const uint8_t byte = in.u8();
        int64_t gap;
        if (code < 0x80) {
            gap = 0; // most bytes come in one read
        } else if (code < 0xC0) {
            gap = (code - 0x80) * silence / 32; // up to twice the silence
        } else {
            switch (code & 7) {
            case 0:
                gap = silence;
                break;
            case 1:
                gap = silence + 1;
                break;
            case 2:
                gap = silence - 1;
                break;
            case 3:
                gap = 10 * 1000 * 1000;
                break;
            case 4:
                gap = std::numeric_limits<int64_t>::max();
                break;
            case 5:
                framer.hunt();
                expect = false;
                gap = 0;
                break;
            case 6:
                framer.expect_frame();
                expect = true;
                gap = 0;
                break;
            default:
                gap = frame_break + (code & 8 ? 1 : 0);
                break;
            }
        }
        line.push_back({gap, expect});
        expect = false;
        const bool complete = framer.feed(byte, gap);
        check(framer.held() <= CRtuFramer::max_frame, "holds more than the longest frame",
              line.size());
        if (!complete)
            continue;
        const std::vector<uint8_t>& f = framer.frame();
        const size_t at = line.size();
        if (log)
            std::fprintf(stderr, "rtu_frame: frame of %zu bytes ends at byte %zu\n", f.size(), at);
        check(f.size() >= 4 && f.size() <= CRtuFramer::max_frame && f.size() <= at,
              "frame of an impossible length", at);
        check(f.back() == byte, "frame does not end with the byte just fed", at);
        check(served[f[0]], "frame for an address not served", at);
        const size_t length = request_frame_length(f);
        check(length != 0, "frame of an unsupported function", at);
        check(f.size() == length, "frame length differs from what its function implies", at);
        const uint16_t crc = crc16(f.data(), f.size() - 2);
        check(f[f.size() - 2] == (crc & 0xFF) && f[f.size() - 1] == (crc >> 8),
              "frame with a bad CRC", at);
        const CByte& first = line[at - f.size()];
        check(first.gap > silence || first.start_allowed, "frame without a silence before it", at);
    }
    return 0;
}
