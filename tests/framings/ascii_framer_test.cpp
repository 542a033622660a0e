#include "io/serial/ascii_framer.h"

#include <boost/test/unit_test.hpp>

#include <string>

namespace {

using bytes_t = std::vector<uint8_t>;

constexpr int64_t timeout_us = 1000000;

// ':', the hex digits of address and PDU and of their LRC (or the one given), CR LF.
std::string line(const bytes_t& frame, int lrc = -1) {
    static const char digits[] = "0123456789ABCDEF";
    uint8_t sum = 0;
    std::string out = ":";
    bytes_t all = frame;
    for (const uint8_t b : frame)
        sum = static_cast<uint8_t>(sum + b);
    all.push_back(lrc < 0 ? static_cast<uint8_t>(-sum) : static_cast<uint8_t>(lrc));
    for (const uint8_t b : all) {
        out.push_back(digits[b >> 4]);
        out.push_back(digits[b & 0xF]);
    }
    return out + "\r\n";
}

const bytes_t read_request{0x01, 0x03, 0x00, 0x10, 0x00, 0x01};

struct CAsciiFixture {
    CAsciiFixture() {
        std::bitset<256> served;
        served[1] = true;
        framer.configure(timeout_us, served, &counts);
    }
    // Feeds the characters, the first after gap_us; the frames completed, without their CRC.
    std::vector<bytes_t> feed(const std::string& text, int64_t gap_us = 0) {
        std::vector<bytes_t> frames;
        for (size_t i = 0; i < text.size(); ++i)
            if (framer.feed(static_cast<uint8_t>(text[i]), i == 0 ? gap_us : 0))
                frames.emplace_back(framer.frame().begin(), framer.frame().end() - 2);
        return frames;
    }
    CTransportCounters counts;
    CAsciiFramer framer;
};

} // namespace

BOOST_FIXTURE_TEST_SUITE(ascii_framer, CAsciiFixture)

// Every way a line fails is one message and one checksum error, and the next good line is
// taken; lines for another slave are its own, and not counted.
BOOST_AUTO_TEST_CASE(refused_lines_are_counted_and_the_line_goes_on) {
    const std::string good = line(read_request);
    std::string not_hex = good;
    not_hex[5] = 'G';
    const std::string refused[] = {
        line(read_request, 0),                 // LRC
        not_hex,                               // a character that is no hex digit
        ":0103001000011\r\n",                  // an odd number of digits
        good.substr(0, good.size() - 1) + "x", // CR without LF
        ":01" + std::string(CAsciiFramer::max_digits, '0') + "\r\n", // too long
    };
    uint32_t n = 0;
    for (const std::string& bad : refused) {
        BOOST_TEST(feed(bad).empty(), bad);
        BOOST_TEST(counts.checksum_errors == ++n, bad);
        BOOST_TEST(feed(good) == std::vector<bytes_t>{read_request});
    }
    BOOST_TEST(counts.messages == 2 * n);
    // A new ':' abandons the frame under way, counted; so does a silence inside a frame.
    BOOST_TEST(feed(good.substr(0, 7) + good) == std::vector<bytes_t>{read_request});
    BOOST_TEST(feed(good.substr(0, 7)).empty());
    BOOST_TEST(feed(good.substr(7), timeout_us + 1).empty());
    BOOST_TEST(counts.checksum_errors == n + 2);
    // Another slave's line, good or bad, is not ours to count.
    const uint32_t messages = counts.messages;
    BOOST_TEST(feed(line({0x02, 0x03, 0x00, 0x10, 0x00, 0x01})).empty());
    BOOST_TEST(feed(line({0x02, 0x03, 0x00, 0x10, 0x00, 0x01}, 0)).empty());
    BOOST_TEST(counts.messages == messages);
}

// Digits of either case, silences within the time-out; the answer goes out in upper case.
BOOST_AUTO_TEST_CASE(lines_in_pieces_and_the_answer) {
    std::string lower = line(read_request);
    for (char& c : lower)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    BOOST_TEST(feed(lower.substr(0, 9)).empty());
    BOOST_TEST(feed(lower.substr(9), timeout_us) == std::vector<bytes_t>{read_request});
    const bytes_t answer{0x01, 0x03, 0x02, 0x00, 0x61, 0xAA, 0xBB}; // the CRC is not sent
    const auto sent = framer.encode(answer.data(), answer.size());
    BOOST_TEST(std::string(reinterpret_cast<const char*>(sent.first), sent.second) ==
               line({0x01, 0x03, 0x02, 0x00, 0x61}));
}

BOOST_AUTO_TEST_SUITE_END()
