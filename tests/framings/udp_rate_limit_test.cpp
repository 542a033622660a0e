#include "io/udp/udp_rate_limit.h"

#include <boost/test/unit_test.hpp>

namespace {

using clock_t_ = CUdpRateLimit::clock_t;
namespace ip = boost::asio::ip;

// How many of n datagrams from peer are taken at the instant now.
unsigned taken(CUdpRateLimit& limit, const ip::address& peer, unsigned n,
               clock_t_::time_point now) {
    unsigned ok = 0;
    for (unsigned i = 0; i < n; ++i)
        ok += limit.take(peer, now) ? 1 : 0;
    return ok;
}

} // namespace

BOOST_AUTO_TEST_SUITE(udp_rate_limit)

// A peer may send `rate` at once and `rate` a second after that; 0 is no limit.
BOOST_AUTO_TEST_CASE(a_peer_gets_its_rate) {
    const auto t0 = clock_t_::now();
    const ip::address peer = ip::make_address("192.0.2.7");
    CUdpRateLimit limit(100);
    BOOST_TEST(taken(limit, peer, 150, t0) == 100u);
    BOOST_TEST(taken(limit, peer, 10, t0 + std::chrono::milliseconds(50)) == 5u);
    // Credit never grows past one second's.
    BOOST_TEST(taken(limit, peer, 300, t0 + std::chrono::seconds(10)) == 100u);
    // The same address as IPv4 or IPv4-mapped IPv6 is one peer.
    BOOST_TEST(
        taken(limit, ip::make_address("::ffff:192.0.2.7"), 1, t0 + std::chrono::seconds(10)) == 0u);
    CUdpRateLimit none(0);
    BOOST_TEST(taken(none, peer, 100000, t0) == 100000u);
}

// A flood from made-up addresses shares the table's buckets: at most the table's size times
// the rate is taken in a second, however many addresses there are.
BOOST_AUTO_TEST_CASE(made_up_addresses_are_bounded) {
    const auto t0 = clock_t_::now();
    CUdpRateLimit limit(10);
    unsigned ok = 0;
    for (uint32_t i = 0; i < 100000; ++i)
        ok += limit.take(ip::address_v4(0x0A000000u + i), t0) ? 1 : 0;
    BOOST_TEST(ok <= CUdpRateLimit::table_size * 10);
    BOOST_TEST(ok >= 10u);
}

BOOST_AUTO_TEST_SUITE_END()
