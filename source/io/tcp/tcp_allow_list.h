#pragma once
// The client networks that may connect, in CIDR form ("10.0.0.0/8", "::1/128"; an address
// without a prefix is that one host). IPv4 networks are kept as IPv4-mapped IPv6 ones, so
// that a peer reaching a dual-stack socket as ::ffff:a.b.c.d matches an IPv4 entry and a
// plain IPv4 peer matches the same entry.
#include <boost/asio/ip/address.hpp>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

class CTcpAllowList {
public:
    // Everyone.
    CTcpAllowList() = default;

    // Entries separated by ';', ',' or blanks. Entries that are not networks are added to bad
    // and left out. No entry at all allows everyone; only bad entries allow nobody, since a
    // list that was meant to restrict must not open the port to all.
    static CTcpAllowList parse(const std::string& text, std::vector<std::string>& bad);

    bool everyone() const { return _everyone; }
    bool nobody() const { return !_everyone && _networks.empty(); }
    bool allows(const boost::asio::ip::address& peer) const;
    // The networks as parse() accepts them, "everyone" or "nobody".
    std::string str() const;

private:
    using bytes_t = std::array<uint8_t, 16>;
    struct network_t {
        bytes_t bytes; // host bits cleared
        unsigned prefix;
    };

    static bytes_t as_v6(const boost::asio::ip::address& address);
    static bool parse_entry(const std::string& entry, network_t& out);
    static bool matches(const network_t& net, const bytes_t& peer);

    std::vector<network_t> _networks;
    bool _everyone = true;
};
