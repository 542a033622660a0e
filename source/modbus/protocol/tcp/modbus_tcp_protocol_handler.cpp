#include "modbus/protocol/tcp/modbus_tcp_protocol_handler.h"

#include "io/io_messenger.h"
#include "modbus/config/modbus_config.h"
#include "modbus/config/modbus_roles.h"
#include "modbus/protocol/tcp/modbus_tcp_adu.h"
#include "util/cast.h"
#include "util/log.h"

#include <boost/asio/post.hpp>

#include <cassert>

CModbusTcpProtocolHandler::CModbusTcpProtocolHandler(CIoMessenger* messenger,
                                                     const CModbusServices& services)
    : CModbusProtocolHandler(messenger, services) {}

CModbusTcpProtocolHandler::~CModbusTcpProtocolHandler() {
    if (_counted)
        --counters()->open;
}

void CModbusTcpProtocolHandler::started() {
    if (_counted || counters() == nullptr)
        return;
    _counted = true;
    ++counters()->open;
    ++counters()->total;
}

void CModbusTcpProtocolHandler::set_peer_identity(const std::string& role) {
    _secure = true;
    _role = role;
}

bool CModbusTcpProtocolHandler::permitted(uint8_t function, uint8_t unit_id) const {
    if (!_secure)
        return true;
    const bool ok = _services.roles != nullptr && _services.roles->allows(_role, function, unit_id);
    if (!ok)
        LOG_DEBUG(SS_TCP_PROTOCOL, 2, "Role '%s' may not send function %u to unit %u",
                  _role.c_str(), static_cast<unsigned>(function), static_cast<unsigned>(unit_id));
    return ok;
}

CModbusTcpAdu& CModbusTcpProtocolHandler::adu() {
    assert(_adu);
    return *poly_cast<CModbusTcpAdu*>(_adu.get());
}

std::shared_ptr<CProtocolHandler> CModbusTcpProtocolHandler::clone(CIoMessenger* messenger) const {
    return std::make_shared<CModbusTcpProtocolHandler>(messenger, _services);
}

bool CModbusTcpProtocolHandler::parse() {
    if (!_adu)
        _adu.reset(new CModbusTcpAdu);
    return parse_request();
}

bool CModbusTcpProtocolHandler::parse_request() {
    assert(_adu);
    assert(_messenger != nullptr);
    const iobuf_const_pair_t rbuf = _messenger->get_rbuf();
    const parse_result_t result = _adu->parse(rbuf.first, rbuf.second);
    assert(result.second <= rbuf.second);
    if (is_incomplete(result) && adu().header.length == 1 && rbuf.second - rbuf.first >= 7) {
        // A header announcing no function code would wait for one forever: the frame
        // parses as incomplete however much follows. Drop its 7 bytes unanswered.
        LOG_DEBUG(SS_TCP_PROTOCOL, 7, "Dropping a frame without a function code");
        _messenger->clear_rbuf(rbuf.first + 7);
        parse_again();
        return true;
    }
    if (is_incomplete(result)) {
        if (static_cast<size_t>(rbuf.second - rbuf.first) > max_unread) {
            LOG_WARN(SS_TCP_PROTOCOL, 1, "No complete request in %zu bytes; closing connection",
                     static_cast<size_t>(rbuf.second - rbuf.first));
            _messenger->remove();
            return true;
        }
        return false;
    }
    _messenger->clear_rbuf(result.second);
    if (counters() != nullptr)
        ++counters()->messages;
    if (is_bad(result)) {
        LOG_DEBUG(SS_TCP_PROTOCOL, 7, "Error encountered while parsing ADU");
        err(MB_ILLEGAL_DATA_VALUE);
    } else {
        execute();
    }
    return true;
}

void CModbusTcpProtocolHandler::execute() {
    CModbusTcpAdu& tcp = adu();
    assert(_messenger != nullptr);
    if (tcp.header.protocol_id != 0) {
        // Dropped without an answer.
        parse_again();
        return;
    }
    const CModbusDeviceConfig* device = _services.config->tcp_config(tcp.header.unit_id);
    if (!device) {
        LOG_DEBUG(SS_TCP_PROTOCOL, 2, "Received request for unknown UnitID %u", tcp.header.unit_id);
        if (counters() != nullptr)
            ++counters()->unknown_units;
        err(MB_GATEWAY_PATH_UNAVAILABLE);
        return;
    }
    handle_request(tcp.pdu, *device, tcp.header.unit_id);
}

// After a frame dropped unanswered, a request behind it may already be in the buffer, so go
// on with the buffer (from the loop, so that a run of dropped frames cannot nest) rather
// than only reading more.
void CModbusTcpProtocolHandler::parse_again() {
    auto messenger = std::static_pointer_cast<CIoMessenger>(_messenger->shared_from_this());
    boost::asio::post(_messenger->get_io_service(), [messenger] { messenger->parse(); });
}

unsigned int CModbusTcpProtocolHandler::response_timeout() const {
    return _services.config->tcp_timeout();
}

void CModbusTcpProtocolHandler::respond() {
    serialize_response();
    const iobuf_t& out = _messenger->wbuf();
    LOG_DEBUG(SS_TCP_PROTOCOL, 4, "Sending response of size %zu", out.size());
    LOG_DUMP(SS_TCP_PROTOCOL, 6, out.data(), out.size(), "Response");
    _messenger->write();
}

void CModbusTcpProtocolHandler::err(modbus_err_t code) {
    assert(_adu);
    _adu->err(code);
    respond();
}
