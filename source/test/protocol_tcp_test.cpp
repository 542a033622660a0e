#include "modbus/protocol/tcp/modbus_tcp_adu.h"
#include "test/framing_test_util.h"
#include "test/global_test_data.h"

#include <boost/test/unit_test.hpp>

BOOST_AUTO_TEST_SUITE(protocol)
BOOST_AUTO_TEST_SUITE(tcp)

namespace {
const iobuf_t request =
    bytes({0x00, 0x01, 0x00, 0x00, 0x00, 0x06, 0x01, 0x04, 0x03, 0xE8, 0x00, 0x02});
}

BOOST_AUTO_TEST_CASE(header) {
    const iobuf_t frame = bytes({0x00, 0x01, 0x00, 0x00, 0x00, 0x06, 0x01});
    CModbusTcpHeader h;
    const parse_result_t r = h.parse(frame.begin(), frame.end());
    BOOST_TEST(is_complete(r));
    BOOST_TEST((r.second == frame.end()));
    BOOST_TEST(h.transaction_id == 1);
    BOOST_TEST(h.protocol_id == 0);
    BOOST_TEST(h.length == 6);
    BOOST_TEST(h.unit_id == 1);
    BOOST_TEST(serialized(h) == frame);

    iobuf_t longer = frame;
    longer.push_back(0xAA);
    longer.push_back(0xBB);
    CModbusTcpHeader h2;
    BOOST_TEST((h2.parse(longer.begin(), longer.end()).second == longer.end() - 2));

    // Six bytes are not enough and leave the header untouched.
    CModbusTcpHeader h3;
    const parse_result_t r3 = h3.parse(frame.begin(), frame.begin() + 6);
    BOOST_TEST(is_incomplete(r3));
    BOOST_TEST((r3.second == frame.begin() + 6));
    BOOST_TEST(h3.transaction_id == 0);
    BOOST_TEST(h3.length == 0);
}

BOOST_AUTO_TEST_CASE(adu) {
    CModbusTcpAdu a;
    const parse_result_t r = a.parse(request.begin(), request.end());
    BOOST_TEST(is_complete(r));
    BOOST_TEST((r.second == request.end()));
    BOOST_TEST(a.header.unit_id == 1);
    BOOST_TEST(a.pdu.function == 4);
    BOOST_TEST(serialized(a) == request);

    a.err(MB_ILLEGAL_FUNCTION);
    const iobuf_t response = serialized(a);
    BOOST_TEST(response.size() == 9u);
    BOOST_TEST(response == bytes({0x00, 0x01, 0x00, 0x00, 0x00, 0x03, 0x01, 0x84, 0x01}));

    // A zero length field is the one malformed frame the ADU itself refuses.
    const iobuf_t bad = bytes({0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01, 0x04});
    CModbusTcpAdu b;
    const parse_result_t rb = b.parse(bad.begin(), bad.end());
    BOOST_TEST(is_bad(rb));
    BOOST_TEST((rb.second == bad.begin() + 7));
}

BOOST_AUTO_TEST_CASE(adu_split_and_pipelined) {
    // Length 6 announced, only 3 PDU bytes there: wait, then complete once the rest arrives.
    iobuf_t buf(request.begin(), request.begin() + 10);
    CModbusTcpAdu a;
    const parse_result_t partial = a.parse(buf.begin(), buf.end());
    BOOST_TEST(is_incomplete(partial));
    BOOST_TEST((partial.second == buf.end()));
    buf.insert(buf.end(), request.begin() + 10, request.end());
    BOOST_TEST(is_complete(a.parse(buf.begin(), buf.end())));

    // Two requests back to back: the first parse stops at the second.
    iobuf_t two = request;
    two.insert(two.end(), request.begin(), request.end());
    two[12 + 1] = 0x02;
    const parse_result_t first = a.parse(two.begin(), two.end());
    BOOST_TEST(is_complete(first));
    BOOST_TEST((first.second == two.begin() + 12));
    BOOST_TEST(a.header.transaction_id == 1);
    const parse_result_t second = a.parse(first.second, two.cend());
    BOOST_TEST(is_complete(second));
    BOOST_TEST(a.header.transaction_id == 2);

    // Length 1 means no function code: incomplete, however many bytes follow.
    iobuf_t no_function = bytes({0x00, 0x05, 0x00, 0x00, 0x00, 0x01, 0x01});
    no_function.insert(no_function.end(), 20, 0x00);
    BOOST_TEST(is_incomplete(a.parse(no_function.begin(), no_function.end())));
}

BOOST_AUTO_TEST_CASE(adu_response_length_recomputed) {
    // The length written is the PDU's, whatever the request announced.
    CModbusTcpAdu a;
    a.parse(request.begin(), request.end());
    a.pdu.data.assign(250, 0x55);
    const iobuf_t out = serialized(a);
    BOOST_TEST(out.size() == 7u + 251u);
    BOOST_TEST(out[4] == 0x00);
    BOOST_TEST(out[5] == 252);
}

BOOST_AUTO_TEST_CASE(adu_random_bytes) {
    // Arbitrary input only ever yields a parse result: never an assertion, and a
    // complete parse never claims bytes beyond the buffer or the announced length.
    CRandom& rnd = test_data().random();
    CModbusTcpAdu a;
    for (int round = 0; round < 20000; ++round) {
        iobuf_t buf(rnd.uniform(0u, 300u));
        for (auto& b : buf)
            b = static_cast<uint8_t>(rnd.uniform(0u, 255u));
        if (buf.size() >= 6 && rnd.bernoulli(0.5)) {
            buf[4] = 0;
            buf[5] = static_cast<uint8_t>(rnd.uniform(0u, 12u));
        }
        const parse_result_t r = a.parse(buf.begin(), buf.end());
        BOOST_REQUIRE((r.second >= buf.cbegin() && r.second <= buf.cend()));
        if (is_complete(r)) {
            BOOST_REQUIRE(r.second - buf.cbegin() == 6 + a.header.length);
            BOOST_REQUIRE(a.pdu.length() == a.header.length - 1u);
        }
    }
}

BOOST_AUTO_TEST_SUITE_END()
BOOST_AUTO_TEST_SUITE_END()
