#include "io/udp/udp_listener.h"

#include "io/io_manager.h"
#include "util/log.h"
#include "util/transport_counters.h"

#include <boost/asio/ip/v6_only.hpp>

#include <cassert>

namespace {

// An address as people write it (an IPv4-mapped one as IPv4).
std::string shown(const boost::asio::ip::address& address) {
    if (address.is_v6() && address.to_v6().is_v4_mapped())
        return boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, address.to_v6())
            .to_string();
    return address.to_string();
}

} // namespace

std::shared_ptr<CUdpListener> CUdpListener::create(CIoManager& manager,
                                                   handler_factory_t make_handler, uint16_t port,
                                                   const CUdpListenerOptions& options) {
    std::shared_ptr<CUdpListener> listener(
        new CUdpListener(manager, std::move(make_handler), port, options));
    listener->receive();
    return listener;
}

CUdpListener::CUdpListener(CIoManager& manager, handler_factory_t make_handler, uint16_t port,
                           const CUdpListenerOptions& options)
    : CIoActor(manager), _socket(manager.service()), _make_handler(std::move(make_handler)),
      _options(options), _rate(options.peer_rate), _rbuf(max_datagram) {
    LOG_STACK();
    assert(_make_handler);
    assert(_options.max_waiting > 0);
    const std::string where = _options.bind_address.empty() ? "" : " on " + _options.bind_address;
    LOG_INFO(SS_TCP_IO, 2, "Listening for UDP requests on port %u%s", port, where.c_str());
    try {
        bind(port);
    } catch (const boost::system::system_error& e) {
        LOG_ERR(SS_TCP_IO, 0, "While binding to UDP port %u%s: %s", port, where.c_str(), e.what());
        throw;
    }
}

void CUdpListener::bind(uint16_t port) {
    using boost::asio::ip::udp;
    if (_options.bind_address.empty()) {
        boost::system::error_code v6_error;
        _socket.open(udp::v6(), v6_error);
        if (!v6_error) {
            _socket.set_option(boost::asio::ip::v6_only(false));
            _socket.bind(udp::endpoint(udp::v6(), port));
        } else {
            _socket.open(udp::v4());
            _socket.bind(udp::endpoint(udp::v4(), port));
        }
    } else {
        const udp::endpoint endpoint(boost::asio::ip::make_address(_options.bind_address), port);
        _socket.open(endpoint.protocol());
        if (endpoint.address().is_v6() && endpoint.address().is_unspecified())
            _socket.set_option(boost::asio::ip::v6_only(false));
        _socket.bind(endpoint);
    }
    // Answers are sent at once and never wait for room.
    _socket.non_blocking(true);
}

CUdpListener::~CUdpListener() {
    boost::system::error_code ignored;
    _socket.close(ignored);
}

uint16_t CUdpListener::port() const {
    boost::system::error_code ec;
    return _socket.local_endpoint(ec).port();
}

void CUdpListener::close() {
    if (_socket.is_open())
        _socket.close();
}

CUdpListener::slot_t* CUdpListener::free_slot() {
    for (const auto& slot : _slots)
        if (!slot->waiting)
            return slot.get();
    if (_slots.size() >= _options.max_waiting)
        return nullptr;
    _slots.push_back(std::make_unique<slot_t>());
    slot_t* slot = _slots.back().get();
    slot->handler = _make_handler();
    std::weak_ptr<CIoActor> weak = shared_from_this();
    slot->handler->set_waker([this, weak, slot] {
        if (const auto self = weak.lock())
            resumed(*slot);
    });
    return slot;
}

void CUdpListener::receive() {
    if (_receiving || !_socket.is_open() || free_slot() == nullptr)
        return;
    _receiving = true;
    auto self = std::static_pointer_cast<CUdpListener>(shared_from_this());
    _socket.async_receive_from(
        boost::asio::buffer(_rbuf), _from,
        [self](const boost::system::error_code& error, size_t size) {
            self->handle_receive(error, size);
        });
}

void CUdpListener::handle_receive(const boost::system::error_code& error, size_t size) {
    LOG_STACK();
    _receiving = false;
    if (error == boost::asio::error::operation_aborted || !_socket.is_open())
        return;
    // Errors of a datagram socket concern one datagram (or one peer's earlier answer, as
    // "connection refused"): the socket itself goes on.
    if (error)
        LOG_DEBUG(SS_TCP_IO, 4, "UDP receive: %s", error.message().c_str());
    else
        serve(size);
    receive();
}

bool CUdpListener::admit(const boost::asio::ip::address& peer) {
    if (!_options.allow.allows(peer)) {
        refused(_not_allowed, "not in the allow list", peer);
        return false;
    }
    if (!_rate.take(peer, CUdpRateLimit::clock_t::now())) {
        refused(_over_rate, "over the rate allowed to a peer", peer);
        return false;
    }
    for (CBurstCounter* burst : {&_not_allowed, &_over_rate}) {
        const uint64_t n = burst->end();
        if (n > 1)
            LOG_INFO(SS_TCP_IO, 0, "Serving UDP requests again; %llu datagrams were refused",
                     static_cast<unsigned long long>(n));
    }
    return true;
}

void CUdpListener::refused(CBurstCounter& burst, const char* why,
                           const boost::asio::ip::address& peer) {
    if (_options.counters != nullptr)
        ++_options.counters->refused;
    if (burst.hit())
        LOG_WARN(SS_TCP_IO, 0,
                 "Refused a UDP datagram from '%s': %s; further refusals are counted until one is "
                 "served",
                 shown(peer).c_str(), why);
}

void CUdpListener::serve(size_t size) {
    LOG_DUMP(SS_TCP_IO, 6, _rbuf.data(), size, "Received");
    if (!admit(_from.address()))
        return;
    slot_t* slot = free_slot();
    assert(slot != nullptr); // nothing is read while every handler waits
    slot->peer = _from;
    const auto begin = _rbuf.cbegin();
    act(*slot, slot->handler->received(begin, begin + static_cast<std::ptrdiff_t>(size)));
}

void CUdpListener::act(slot_t& slot, const CProtocolHandler::action_t& action) {
    slot.waiting = action.kind == CProtocolHandler::action_t::WAIT;
    if (action.kind != CProtocolHandler::action_t::SEND)
        return;
    boost::system::error_code ec;
    _socket.send_to(boost::asio::buffer(action.data, action.size), slot.peer, 0, ec);
    if (ec)
        LOG_DEBUG(SS_TCP_IO, 2, "An answer to '%s' was lost: %s",
                  shown(slot.peer.address()).c_str(), ec.message().c_str());
}

void CUdpListener::resumed(slot_t& slot) {
    if (!_socket.is_open())
        return;
    act(slot, slot.handler->resume());
    receive();
}
