#include "modbus/protocol/modbus_protocol_handler.h"

#include "io/io_messenger.h"
#include "io/io_timer.h"
#include "modbus/protocol/functions/modbus_read_discretes.h"
#include "modbus/protocol/functions/modbus_read_registers.h"
#include "modbus/protocol/functions/modbus_write_discretes.h"
#include "modbus/protocol/functions/modbus_write_registers.h"
#include "util/log.h"

#include <cassert>

CModbusProtocolHandler::CModbusProtocolHandler(CIoMessenger* messenger)
    : CProtocolHandler(messenger) {}

CModbusProtocolHandler::~CModbusProtocolHandler() {
    drop_timer();
}

void CModbusProtocolHandler::handle_request(CModbusPdu& pdu, CModbusDeviceConfig& device) {
    LOG_STACK();
    switch (pdu.function) {
    case 0x01:
    case 0x02:
        _function = CModbusReadDiscretes::create(*this, pdu, device);
        break;
    case 0x03:
    case 0x04:
        _function = CModbusReadRegisters::create(*this, pdu, device);
        break;
    case 0x05:
    case 0x0F:
        _function = CModbusWriteDiscretes::create(*this, pdu, device);
        break;
    case 0x06:
    case 0x10:
        _function = CModbusWriteRegisters::create(*this, pdu, device);
        break;
    default:
        err(MB_ILLEGAL_FUNCTION);
        return;
    }
    _function->execute();
}

bool CModbusProtocolHandler::verify_pdu_length(const CModbusPdu& pdu) {
    switch (pdu.function) {
    case 0x01:
    case 0x02:
        return CModbusReadDiscretes::verify_length(pdu);
    case 0x03:
    case 0x04:
        return CModbusReadRegisters::verify_length(pdu);
    case 0x05:
    case 0x0F:
        return CModbusWriteDiscretes::verify_length(pdu);
    case 0x06:
    case 0x10:
        return CModbusWriteRegisters::verify_length(pdu);
    default:
        return true;
    }
}

void CModbusProtocolHandler::start_timer(unsigned int timeout_ms) {
    drop_timer();
    if (timeout_ms == 0)
        return;
    assert(_messenger != nullptr);
    const size_t period = static_cast<size_t>(timeout_ms) * 1000u;
    _timer = CIoTimer::create(*_messenger, period);
    _timer->reset();
}

void CModbusProtocolHandler::drop_timer() {
    if (_timer) {
        _timer->assign(nullptr);
        _timer->cancel();
        _timer.reset();
    }
}

void CModbusProtocolHandler::serialize_response() {
    assert(_adu);
    assert(_messenger != nullptr);
    iobuf_t& out = _messenger->wbuf();
    out.clear();
    _adu->serialize(out);
}
