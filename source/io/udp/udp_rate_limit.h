#pragma once
// Bounds the datagrams taken from each peer address: a bucket per address holds up to one
// second of credit, a datagram costs 1/rate of a second, and credit comes back with time, so a
// peer may send `rate` at once and `rate` a second on average. Peers are kept in a fixed
// table, chosen by address: a peer whose entry another address holds, heard within the last
// second, shares that one's bucket, so a flood from made-up addresses never grows the table
// and is bounded as one peer. Integer arithmetic only, on the I/O thread.
#include <boost/asio/ip/address.hpp>

#include <array>
#include <chrono>
#include <cstdint>
#include <vector>

class CUdpRateLimit {
public:
    using clock_t = std::chrono::steady_clock;
    static constexpr size_t table_size = 256;

    // rate: datagrams a second per peer, 0 for no limit.
    explicit CUdpRateLimit(uint32_t rate);

    bool unlimited() const { return _cost_us == 0; }
    // Whether a datagram from peer may be taken now; takes its cost when it may.
    bool take(const boost::asio::ip::address& peer, clock_t::time_point now);

private:
    using key_t = std::array<uint8_t, 16>;
    struct entry_t {
        key_t peer{};
        clock_t::time_point last;
        int64_t credit_us = 0;
        bool used = false;
    };

    static key_t key_of(const boost::asio::ip::address& peer);

    int64_t _cost_us;
    std::vector<entry_t> _table;
};
