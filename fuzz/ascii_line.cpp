// Fuzz target: Modbus ASCII frames on a serial line. The input configures the framer (the
// inter-character time-out in microseconds, 0 for none, and one more served address besides
// 1 and 17), then gives the characters of the line. 0xFF escapes: 0xFF 0xFF is the character
// 0xFF; 0xFF and another code sets the silence before the next character, or calls hunt() or
// expect_frame() as the connection does around its answers. Keeping the characters as they
// are lets a dictionary of whole lines work.
//
// Whether a line must become a frame is judged here on its own: ':', an even number (6 to the
// longest frame's) of hex digits of either case, CR LF; an address served, an LRC that holds;
// no silence over the time-out after the ':', no hunt in between. Every frame the framer gives
// must be such a line, as its RTU frame (with a CRC), and every such line must give one; the
// answer's encoding of that frame is the line in upper case. The line's counters tell frames
// taken from frames refused.
#include "support/fuzz_input.h"
#include "support/rtu_layout.h"

#include "io/serial/ascii_framer.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>

namespace {

void check(bool ok, const char* what, size_t at) {
    if (!ok) {
        std::fprintf(stderr, "ascii_line: character %zu: %s\n", at, what);
        std::abort();
    }
}

int hex(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

// The request a line carries, when it carries one for a served address; empty otherwise.
std::vector<uint8_t> request_of(const std::string& line, const std::bitset<256>& served) {
    // ':' digits CR LF
    const size_t digits = line.size() < 3 ? 0 : line.size() - 3;
    if (line.size() < 3 || line[0] != ':' || line[line.size() - 2] != '\r' || line.back() != '\n' ||
        digits % 2 != 0 || digits < 6 || digits > CAsciiFramer::max_digits)
        return {};
    std::vector<uint8_t> bytes;
    uint8_t sum = 0;
    for (size_t i = 1; i + 2 < line.size(); i += 2) {
        const int hi = hex(line[i]), lo = hex(line[i + 1]);
        if (hi < 0 || lo < 0)
            return {};
        bytes.push_back(static_cast<uint8_t>(hi << 4 | lo));
        sum = static_cast<uint8_t>(sum + bytes.back());
    }
    if (sum != 0 || !served[bytes[0]])
        return {};
    bytes.pop_back(); // the LRC
    return bytes;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CFuzzInput in(data, size);
    const int64_t timeout = in.u16();
    std::bitset<256> served;
    served.set(1).set(17).set(in.u8());
    CTransportCounters counts;
    CAsciiFramer framer;
    framer.configure(timeout, served, &counts);

    // The characters since the last ':' while a line may be under way; `open` is false once
    // something (a long silence, a hunt) ended it.
    std::string line;
    bool open = false;
    int64_t gap = 0;
    size_t at = 0, frames = 0;
    while (in.left() > 0) {
        uint8_t c = in.u8();
        if (c == 0xFF) {
            const uint8_t code = in.u8();
            if (code != 0xFF) {
                switch (code & 7) {
                case 0:
                    gap = timeout;
                    break;
                case 1:
                    gap = timeout + 1;
                    break;
                case 2:
                    gap = timeout > 0 ? timeout - 1 : 0;
                    break;
                case 3:
                    gap = std::numeric_limits<int64_t>::max();
                    break;
                case 4:
                    framer.hunt();
                    open = false;
                    break;
                case 5:
                    framer.expect_frame();
                    open = false;
                    break;
                default:
                    gap = (code >> 3) * timeout / 8; // up to four times the time-out
                    break;
                }
                continue;
            }
        }
        ++at;
        if (c == ':') {
            line = ":";
            open = true;
        } else if (open && timeout > 0 && gap > timeout) {
            open = false;
        } else if (open) {
            line.push_back(static_cast<char>(c));
            // CR must be followed by LF; nothing but the longest frame's digits fit.
            const bool cr_then_other =
                line.size() >= 2 && line[line.size() - 2] == '\r' && c != '\n';
            if (cr_then_other || line.size() > 1 + CAsciiFramer::max_digits + 2)
                open = false;
        }
        const bool complete = framer.feed(c, gap);
        gap = 0;
        const bool ends_line = open && c == '\n';
        const std::vector<uint8_t> want =
            ends_line ? request_of(line, served) : std::vector<uint8_t>();
        if (ends_line)
            open = false;
        check(complete == !want.empty(),
              complete ? "a frame from no good line" : "a good line gave no frame", at);
        if (!complete)
            continue;
        ++frames;
        const std::vector<uint8_t>& f = framer.frame();
        check(f.size() == want.size() + 2 && std::equal(want.begin(), want.end(), f.begin()),
              "the frame is not the line's request", at);
        check(rtu_layout::crc_holds(f.data(), f.size()), "the frame's CRC does not hold", at);
        const auto encoded = framer.encode(f.data(), f.size());
        std::string upper;
        for (const char ch : line)
            upper.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(ch))));
        check(std::string(reinterpret_cast<const char*>(encoded.first), encoded.second) == upper,
              "the frame encodes to another line", at);
    }
    check(counts.checksum_errors <= counts.messages &&
              counts.messages - counts.checksum_errors == frames,
          "the frames taken and refused are miscounted", at);
    return 0;
}
