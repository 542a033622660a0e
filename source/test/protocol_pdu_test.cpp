#include "modbus/protocol/modbus_pdu.h"
#include "test/framing_test_util.h"

#include <boost/test/unit_test.hpp>

BOOST_AUTO_TEST_SUITE(protocol)

BOOST_AUTO_TEST_CASE(pdu) {
    const iobuf_t frame = bytes({0x04, 0x03, 0xE8, 0x00, 0x02});
    CModbusPdu p;
    const parse_result_t r = p.parse(frame.begin(), frame.end());
    BOOST_TEST(is_complete(r));
    BOOST_TEST((r.second == frame.end()));
    BOOST_TEST(p.function == 4);
    BOOST_TEST(p.data == bytes({0x03, 0xE8, 0x00, 0x02}));
    BOOST_TEST(p.length() == 5u);
    BOOST_TEST(serialized(p) == frame);

    p.err(MB_ILLEGAL_FUNCTION);
    BOOST_TEST(serialized(p) == bytes({0x84, 0x01}));

    const iobuf_t empty;
    CModbusPdu q;
    const parse_result_t e = q.parse(empty.begin(), empty.end());
    BOOST_TEST(is_incomplete(e));
    BOOST_TEST((e.second == empty.end()));
}

BOOST_AUTO_TEST_CASE(pdu_reparse_replaces_data) {
    // A handler reuses one PDU per connection: a shorter second request must not keep
    // bytes of the first.
    CModbusPdu p;
    const iobuf_t first = bytes({0x10, 1, 2, 3, 4, 5, 6});
    const iobuf_t second = bytes({0x01});
    p.parse(first.begin(), first.end());
    const parse_result_t r = p.parse(second.begin(), second.end());
    BOOST_TEST(is_complete(r));
    BOOST_TEST(p.function == 1);
    BOOST_TEST(p.data.empty());
    BOOST_TEST(p.length() == 1u);

    // An exception keeps the request's function in the low bits, whatever was there.
    p.function = 0x83;
    p.err(MB_GATEWAY_TARGET_FAILED);
    BOOST_TEST(serialized(p) == bytes({0x83, 0x0B}));
}

BOOST_AUTO_TEST_SUITE_END()
