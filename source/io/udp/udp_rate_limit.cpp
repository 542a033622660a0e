#include "io/udp/udp_rate_limit.h"

#include <algorithm>

namespace {

constexpr int64_t second_us = 1000000;

} // namespace

CUdpRateLimit::CUdpRateLimit(uint32_t rate)
    : _cost_us(rate == 0 ? 0 : std::max<int64_t>(1, second_us / rate)), _table(table_size) {}

CUdpRateLimit::key_t CUdpRateLimit::key_of(const boost::asio::ip::address& peer) {
    if (peer.is_v6())
        return peer.to_v6().to_bytes();
    return boost::asio::ip::make_address_v6(boost::asio::ip::v4_mapped, peer.to_v4()).to_bytes();
}

bool CUdpRateLimit::take(const boost::asio::ip::address& peer, clock_t::time_point now) {
    if (unlimited())
        return true;
    const key_t key = key_of(peer);
    // FNV-1a over the address.
    uint32_t hash = 2166136261u;
    for (const uint8_t byte : key)
        hash = (hash ^ byte) * 16777619u;
    entry_t& e = _table[hash % table_size];
    const bool stale = !e.used || now - e.last >= std::chrono::seconds(1);
    if (e.peer != key && stale) {
        e.peer = key;
        e.used = true;
        e.credit_us = second_us;
        e.last = now;
    }
    const int64_t elapsed =
        std::chrono::duration_cast<std::chrono::microseconds>(now - e.last).count();
    if (elapsed > 0)
        e.credit_us = std::min(second_us, e.credit_us + elapsed);
    e.last = now;
    if (e.credit_us < _cost_us)
        return false;
    e.credit_us -= _cost_us;
    return true;
}
