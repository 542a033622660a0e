#include "modbus/protocol/serial/modbus_serial_protocol_handler.h"

#include "io/serial/serial_connection.h"
#include "modbus/config/modbus_config.h"
#include "modbus/core/modbus_function.h"
#include "modbus/protocol/serial/modbus_serial_adu.h"
#include "util/cast.h"
#include "util/log.h"

#include <cassert>

CModbusSerialProtocolHandler::CModbusSerialProtocolHandler(CIoMessenger* messenger,
                                                           const CModbusServices& services)
    : CModbusProtocolHandler(messenger, services) {}

CModbusSerialProtocolHandler::~CModbusSerialProtocolHandler() {
    if (_line != nullptr)
        --_line->open;
}

void CModbusSerialProtocolHandler::drop() {
    if (_broadcasting)
        next_broadcast();
    else
        ignore();
}

CModbusSerialAdu& CModbusSerialProtocolHandler::adu() const {
    assert(_adu);
    return *poly_cast<CModbusSerialAdu*>(_adu.get());
}

unsigned int CModbusSerialProtocolHandler::interface_id() const {
    assert(_messenger != nullptr);
    return poly_cast<CSerialConnection*>(_messenger)->interface_id();
}

std::shared_ptr<CProtocolHandler>
CModbusSerialProtocolHandler::clone(CIoMessenger* messenger) const {
    return std::make_shared<CModbusSerialProtocolHandler>(messenger, _services);
}

void CModbusSerialProtocolHandler::set_timeout(unsigned int timeout) {
    LOG_STACK();
    _timeout = timeout;
    assert(_messenger != nullptr);
    _uid_map.reset();
    CModbusConfig& config = *_services.config;
    const unsigned int iface = interface_id();
    for (unsigned address = 0; address < 256; ++address) {
        if (config.serial_config(iface, static_cast<slave_addr_t>(address))) {
            _uid_map.set(address);
            LOG_DEBUG(SS_SERIAL_PROTOCOL, 5, "_uid_map[%u] is valid", address);
        }
    }
    // Broadcasts (address 0) reach every slave of the interface.
    if (_uid_map.any())
        _uid_map.set(0);
    // The line's counters; the port counts as a connection while it is served.
    std::vector<CTransportCounters>* lines = _services.serial_counters;
    if (_line == nullptr && lines != nullptr && iface < lines->size()) {
        _line = &(*lines)[iface];
        ++_line->open;
        ++_line->total;
    }
}

void CModbusSerialProtocolHandler::create_adu() {
    if (_adu)
        return;
    LOG_DEBUG(SS_SERIAL_PROTOCOL, 4, "Create ADU object");
    _adu.reset(new CModbusSerialAdu);
}

size_t CModbusSerialProtocolHandler::frame_length(const uint8_t* frame, size_t n) const {
    const size_t length = CModbusFunction::rtu_length(frame, n);
    return length == CModbusFunction::no_frame ? no_frame : length;
}

bool CModbusSerialProtocolHandler::parse() {
    assert(_adu);
    return parse_request();
}

bool CModbusSerialProtocolHandler::more_data_needed() const {
    return !verify_pdu_length(adu().pdu);
}

bool CModbusSerialProtocolHandler::parse_request() {
    LOG_STACK();
    assert(_adu);
    assert(_messenger != nullptr);
    const iobuf_const_pair_t rbuf = _messenger->get_rbuf();
    const parse_result_t result = _adu->parse(rbuf.first, rbuf.second);
    assert(result.second <= rbuf.second);
    if (is_incomplete(result))
        return false;
    if (is_bad(result)) {
        ignore();
        return true;
    }
    if (more_data_needed())
        return false;
    _messenger->clear_rbuf(result.second);
    execute();
    return true;
}

void CModbusSerialProtocolHandler::execute() {
    LOG_STACK();
    CModbusSerialAdu& serial = adu();
    assert(_messenger != nullptr);
    if (serial.crc.verify(serial)) {
        if (serial.address == 0) {
            broadcast();
            return;
        }
        if (const CModbusDeviceConfig* device =
                _services.config->serial_config(interface_id(), serial.address)) {
            handle_request(serial.pdu, *device, serial.address);
            return;
        }
    }
    ignore();
}

void CModbusSerialProtocolHandler::broadcast() {
    CModbusSerialAdu& serial = adu();
    switch (serial.pdu.function) {
    case 0x05:
    case 0x06:
    case 0x0F:
    case 0x10:
    case 0x16:
        break;
    default:
        // Only writes are broadcast; anything else to address 0 is ignored.
        ignore();
        return;
    }
    _broadcast_targets.clear();
    const unsigned int iface = interface_id();
    for (const auto& slave : _services.config->serial_units())
        if (slave.first.first == iface)
            _broadcast_targets.push_back(slave.second);
    _broadcast_request = serial.pdu;
    _broadcast_next = 0;
    _broadcasting = true;
    next_broadcast();
}

void CModbusSerialProtocolHandler::next_broadcast() {
    if (_broadcast_next == _broadcast_targets.size()) {
        _broadcasting = false;
        ignore();
        return;
    }
    const CModbusDeviceConfig* device = _broadcast_targets[_broadcast_next++];
    CModbusSerialAdu& serial = adu();
    serial.pdu = _broadcast_request;
    handle_request(serial.pdu, *device, 0);
}

void CModbusSerialProtocolHandler::ignore() {
    _messenger->reset_flags();
    _messenger->read_more();
}

void CModbusSerialProtocolHandler::respond() {
    // A broadcast is answered by nobody; each slave's outcome leads to the next slave.
    if (_broadcasting) {
        next_broadcast();
        return;
    }
    serialize_response();
    LOG_DUMP(SS_SERIAL_PROTOCOL, 6, _messenger->wbuf().data(), _messenger->wbuf().size(),
             "Response");
    _messenger->write();
}

void CModbusSerialProtocolHandler::err(modbus_err_t code) {
    assert(_adu);
    if (_broadcasting) {
        LOG_DEBUG(SS_SERIAL_PROTOCOL, 3, "Broadcast not carried out by a slave: exception %u",
                  static_cast<unsigned>(code));
        next_broadcast();
        return;
    }
    _adu->err(code);
    respond();
}
