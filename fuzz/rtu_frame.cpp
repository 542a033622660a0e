// Fuzz target: RTU frame hunting on a serial line. The input configures the framer (the
// silence between frames, one more served slave address besides 1 and 17) and then gives
// byte after byte with the gap before it, now and then a hunt() or an expect_frame() as the
// connection calls them around its answers. Every frame the framer returns must follow the
// line's rules, checked here independently of it: a served address, a supported function, the
// length its function implies, a CRC that holds, and a silence (or expect_frame) before its
// first byte.
#include "support/fuzz_input.h"
#include "support/rtu_layout.h"

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

struct CByte {
    int64_t gap;
    bool start_allowed; // expect_frame() came just before it
};

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
        const size_t length = rtu_layout::request_length(f.data(), f.size());
        check(length != 0, "frame of an unsupported function", at);
        check(f.size() == length, "frame length differs from what its function implies", at);
        check(rtu_layout::crc_holds(f.data(), f.size()), "frame with a bad CRC", at);
        const CByte& first = line[at - f.size()];
        check(first.gap > silence || first.start_allowed, "frame without a silence before it", at);
    }
    return 0;
}
