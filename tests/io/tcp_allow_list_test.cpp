#include "io/tcp/tcp_allow_list.h"

#include <boost/test/unit_test.hpp>

namespace {

bool allows(const CTcpAllowList& list, const char* peer) {
    return list.allows(boost::asio::ip::make_address(peer));
}

} // namespace

BOOST_AUTO_TEST_SUITE(io)
BOOST_AUTO_TEST_SUITE(tcp_allow_list)

BOOST_AUTO_TEST_CASE(networks_match_their_peers) {
    std::vector<std::string> bad;
    const CTcpAllowList list = CTcpAllowList::parse(
        " 127.0.0.1/32;10.1.2.3/8,\t192.168.4.0/22 fd00::/8;;2001:db8::1 172.16.0.7", bad);
    BOOST_TEST(bad.empty());
    BOOST_TEST(
        list.str() ==
        "127.0.0.1/32; 10.0.0.0/8; 192.168.4.0/22; fd00::/8; 2001:db8::1/128; 172.16.0.7/32");
    const struct {
        const char* peer;
        bool allowed;
    } cases[] = {
        {"127.0.0.1", true},         {"127.0.0.2", false},   {"::ffff:127.0.0.1", true},
        {"::ffff:127.0.0.2", false},                      // a dual-stack socket's view
        {"10.255.0.1", true},        {"11.0.0.0", false}, // host bits of 10.1.2.3/8 do not count
        {"192.168.7.255", true},     {"192.168.8.0", false}, {"192.168.3.255", false},
        {"fdff::1", true},           {"fe00::1", false},     {"2001:db8::1", true},
        {"2001:db8::2", false},      {"172.16.0.7", true},   {"::1", false},
        {"::127.0.0.1", false}, // IPv4-compatible is not mapped
    };
    for (const auto& c : cases)
        BOOST_TEST(allows(list, c.peer) == c.allowed, c.peer);
}

BOOST_AUTO_TEST_CASE(everyone_nobody_and_bad_entries) {
    std::vector<std::string> bad;
    for (const char* text : {"", " ; ,\n"}) {
        const CTcpAllowList list = CTcpAllowList::parse(text, bad);
        BOOST_TEST(list.everyone());
        BOOST_TEST(allows(list, "203.0.113.9"));
    }
    BOOST_TEST(bad.empty());
    BOOST_TEST(allows(CTcpAllowList(), "::1"));

    const CTcpAllowList zero = CTcpAllowList::parse("0.0.0.0/0", bad);
    BOOST_TEST(allows(zero, "203.0.113.9"));
    BOOST_TEST(!allows(zero, "2001:db8::1")); // every IPv4 peer, no IPv6 one

    const CTcpAllowList some = CTcpAllowList::parse(
        "10.0.0.0/33 ::1/129 1.2.3.4/ 1.2.3.4/x 1.2.3.4/08 1.2.3.4/+8 1.2.3 host /8 ::1/128", bad);
    const std::vector<std::string> want{"10.0.0.0/33", "::1/129",    "1.2.3.4/",
                                        "1.2.3.4/x",   "1.2.3.4/08", "1.2.3.4/+8",
                                        "1.2.3",       "host",       "/8"};
    BOOST_TEST(bad == want, boost::test_tools::per_element());
    BOOST_TEST(!some.nobody());
    BOOST_TEST(allows(some, "::1"));
    BOOST_TEST(!allows(some, "10.0.0.1"));

    bad.clear();
    const CTcpAllowList none = CTcpAllowList::parse("localhost", bad);
    BOOST_TEST(bad.size() == 1u);
    BOOST_TEST(none.nobody());
    BOOST_TEST(none.str() == "nobody");
    BOOST_TEST(!allows(none, "127.0.0.1"));
}

BOOST_AUTO_TEST_SUITE_END()
BOOST_AUTO_TEST_SUITE_END()
