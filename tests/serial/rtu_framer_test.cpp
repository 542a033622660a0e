#include "io/serial/rtu_framer.h"
#include "modbus/core/modbus_function.h"
#include "modbus/protocol/serial/modbus_serial_crc.h"

#include <boost/test/unit_test.hpp>

namespace {

using bytes_t = std::vector<uint8_t>;

constexpr int64_t silence = 1719;     // 1.5 characters at 9600 baud, in microseconds
constexpr int64_t frame_break = 3646; // 3.5 characters
constexpr int64_t quiet = 4000;

bytes_t with_crc(bytes_t frame) {
    uint16_t crc = 0xFFFF;
    for (const uint8_t b : frame)
        crc = CModbusSerialCrc::build_crc(crc, b);
    frame.push_back(static_cast<uint8_t>(crc & 0xff));
    frame.push_back(static_cast<uint8_t>(crc >> 8));
    return frame;
}

const bytes_t read_request = with_crc({0x01, 0x03, 0x00, 0x00, 0x00, 0x02});
const bytes_t write_request = with_crc({0x01, 0x10, 0x00, 0x00, 0x00, 0x02, 0x04, 1, 2, 3, 4});

struct CFramerFixture {
    CFramerFixture() {
        std::bitset<256> served;
        served[1] = served[7] = true;
        framer.configure(silence, frame_break, served, CModbusFunction::rtu_length, &counts);
    }
    // Feeds bytes back to back, the first after `gap`; the frames completed.
    std::vector<bytes_t> feed(const bytes_t& bytes, int64_t gap = quiet) {
        std::vector<bytes_t> frames;
        for (size_t i = 0; i < bytes.size(); ++i)
            if (framer.feed(bytes[i], i == 0 ? gap : 0))
                frames.push_back(framer.frame());
        return frames;
    }
    CTransportCounters counts;
    CRtuFramer framer;
};

} // namespace

BOOST_FIXTURE_TEST_SUITE(rtu_framer, CFramerFixture)

BOOST_AUTO_TEST_CASE(frames_after_silence_are_taken_at_their_length) {
    BOOST_TEST(feed(read_request) == std::vector<bytes_t>{read_request});
    BOOST_TEST(feed(write_request) == std::vector<bytes_t>{write_request});
    // Largest byte count; a request in pieces within the character timing.
    bytes_t big{0x07, 0x0F, 0x00, 0x00, 0x07, 0xF8, 0xFF};
    big.resize(7 + 255, 0xA5);
    big = with_crc(big);
    BOOST_TEST(big.size() == CRtuFramer::max_frame);
    std::vector<bytes_t> got = feed(bytes_t(big.begin(), big.begin() + 5));
    BOOST_TEST(got.empty());
    BOOST_TEST(framer.held() == 5u);
    // A gap longer than 1.5 characters but short of the break between frames, as a late
    // reader sees one, keeps the frame.
    got = feed(bytes_t(big.begin() + 5, big.end()), frame_break);
    BOOST_TEST(got == std::vector<bytes_t>{big});
}

BOOST_AUTO_TEST_CASE(everything_else_is_dropped_until_the_next_silence) {
    const bytes_t foreign = with_crc({0x02, 0x03, 0x00, 0x00, 0x00, 0x02});
    const bytes_t other_function = with_crc({0x01, 0x07, 0x00, 0x00, 0x00, 0x02});
    bytes_t bad_crc = read_request;
    bad_crc.back() ^= 1;
    for (const bytes_t& noise : {foreign, other_function, bad_crc}) {
        // What follows at once is not a frame start, even a good frame.
        bytes_t stream = noise;
        stream.insert(stream.end(), read_request.begin(), read_request.end());
        BOOST_TEST(feed(stream).empty());
        BOOST_TEST(framer.hunting());
        BOOST_TEST(feed(read_request) == std::vector<bytes_t>{read_request});
    }
    // Frames that reached their length count as messages; the bad CRC as an error too.
    BOOST_TEST(counts.messages == 4u);
    BOOST_TEST(counts.checksum_errors == 1u);
    // Without a silence before it, a frame is noise, as is one after an exact 1.5 characters.
    BOOST_TEST(feed(read_request, 0).empty());
    BOOST_TEST(feed(read_request, silence).empty());
    BOOST_TEST(feed(read_request, silence + 1).size() == 1u);
    // Two frames back to back: the second did not follow a silence.
    bytes_t two = read_request;
    two.insert(two.end(), write_request.begin(), write_request.end());
    BOOST_TEST(feed(two) == std::vector<bytes_t>{read_request});
}

BOOST_AUTO_TEST_CASE(a_break_inside_a_frame_follows_both_frames) {
    // A byte count beyond the data, with a good CRC: the frame never ends by length.
    const bytes_t overlong{0x01, 0x10, 0x00, 0x00, 0x00, 0x02, 0xC8,
                           0x00, 0x01, 0x00, 0x02, 0x33, 0xBE};
    BOOST_TEST(feed(overlong).empty());
    BOOST_TEST(framer.held() == overlong.size());
    for (int i = 0; i < 25; ++i)
        BOOST_TEST(feed(read_request) == std::vector<bytes_t>{read_request});
    // A truncated frame for a served address.
    BOOST_TEST(feed({0x01, 0x03, 0x00}).empty());
    BOOST_TEST(feed(write_request) == std::vector<bytes_t>{write_request});
    // A break that a late reader saw inside a good frame: its CRC holds, it is taken.
    BOOST_TEST(feed(bytes_t(read_request.begin(), read_request.begin() + 4)).empty());
    BOOST_TEST(feed(bytes_t(read_request.begin() + 4, read_request.end())) ==
               std::vector<bytes_t>{read_request});
    // Two breaks: the frame after the newer one is followed, the older start is kept.
    BOOST_TEST(feed({0x01, 0x10, 0x00}).empty());
    BOOST_TEST(feed({0x07, 0x03}).empty());
    BOOST_TEST(feed(read_request) == std::vector<bytes_t>{read_request});
    // A broken frame whose pieces do not add up to a good one: the rest is no frame.
    BOOST_TEST(feed(bytes_t(read_request.begin(), read_request.begin() + 4)).empty());
    BOOST_TEST(feed(bytes_t(write_request.begin() + 4, write_request.begin() + 8)).empty());
    BOOST_TEST(framer.hunting());
}

BOOST_AUTO_TEST_CASE(expect_frame_takes_the_next_byte_as_a_start) {
    BOOST_TEST(feed({0x01, 0x03}).empty());
    framer.expect_frame();
    BOOST_TEST(framer.held() == 0u);
    BOOST_TEST(feed(read_request, 0) == std::vector<bytes_t>{read_request});
    // Once only; hunt() forgets it.
    BOOST_TEST(feed(read_request, 0).empty());
    framer.expect_frame();
    framer.hunt();
    BOOST_TEST(feed(read_request, 0).empty());
}

BOOST_AUTO_TEST_SUITE_END()
