#include "io/tcp/tcp_allow_list.h"

#include <boost/asio/ip/address_v6.hpp>

namespace {

// The bits of an IPv4 address inside its IPv4-mapped IPv6 form.
const unsigned v4_offset = 96;

bool is_separator(char c) {
    return c == ';' || c == ',' || c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// A prefix length of 0 to max written in decimal digits only ("+8", "08 " and "" are not).
bool parse_prefix(const std::string& text, unsigned max, unsigned& out) {
    if (text.empty() || text.size() > 3 || (text.size() > 1 && text[0] == '0'))
        return false;
    unsigned v = 0;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return false;
        v = v * 10 + static_cast<unsigned>(c - '0');
    }
    if (v > max)
        return false;
    out = v;
    return true;
}

} // namespace

CTcpAllowList CTcpAllowList::parse(const std::string& text, std::vector<std::string>& bad) {
    CTcpAllowList list;
    bool any = false;
    size_t i = 0;
    while (i < text.size()) {
        if (is_separator(text[i])) {
            ++i;
            continue;
        }
        size_t end = i;
        while (end < text.size() && !is_separator(text[end]))
            ++end;
        const std::string entry = text.substr(i, end - i);
        i = end;
        any = true;
        network_t net{};
        if (parse_entry(entry, net))
            list._networks.push_back(net);
        else
            bad.push_back(entry);
    }
    list._everyone = !any;
    return list;
}

bool CTcpAllowList::parse_entry(const std::string& entry, network_t& out) {
    const size_t slash = entry.find('/');
    boost::system::error_code ec;
    const auto address = boost::asio::ip::make_address(entry.substr(0, slash), ec);
    if (ec)
        return false;
    const unsigned max = address.is_v4() ? 32 : 128;
    unsigned prefix = max;
    if (slash != std::string::npos && !parse_prefix(entry.substr(slash + 1), max, prefix))
        return false;
    out.bytes = as_v6(address);
    out.prefix = address.is_v4() ? prefix + v4_offset : prefix;
    for (unsigned bit = out.prefix; bit < 128; ++bit)
        out.bytes[bit / 8] &= static_cast<uint8_t>(~(0x80u >> (bit % 8)));
    return true;
}

CTcpAllowList::bytes_t CTcpAllowList::as_v6(const boost::asio::ip::address& address) {
    if (address.is_v4())
        return boost::asio::ip::make_address_v6(boost::asio::ip::v4_mapped, address.to_v4())
            .to_bytes();
    return address.to_v6().to_bytes();
}

bool CTcpAllowList::matches(const network_t& net, const bytes_t& peer) {
    const unsigned whole = net.prefix / 8;
    for (unsigned b = 0; b < whole; ++b)
        if (peer[b] != net.bytes[b])
            return false;
    const unsigned rest = net.prefix % 8;
    if (rest == 0)
        return true;
    const auto mask = static_cast<uint8_t>(0xFFu << (8 - rest));
    return (peer[whole] & mask) == net.bytes[whole];
}

bool CTcpAllowList::allows(const boost::asio::ip::address& peer) const {
    if (_everyone)
        return true;
    const bytes_t bytes = as_v6(peer);
    for (const network_t& net : _networks)
        if (matches(net, bytes))
            return true;
    return false;
}

std::string CTcpAllowList::str() const {
    if (_everyone)
        return "everyone";
    if (nobody())
        return "nobody";
    std::string out;
    for (const network_t& net : _networks) {
        const boost::asio::ip::address_v6 v6(net.bytes);
        const bool v4 = v6.is_v4_mapped() && net.prefix >= v4_offset;
        if (!out.empty())
            out += "; ";
        out += v4 ? boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, v6).to_string()
                  : v6.to_string();
        out += "/" + std::to_string(v4 ? net.prefix - v4_offset : net.prefix);
    }
    return out;
}
