#include "modbus/protocol/functions/modbus_read_discretes.h"

#include "io/io_timer.h"
#include "modbus/address_range/address_range.h"
#include "modbus/config/modbus_device_config.h"
#include "modbus/maplist/discrete_maplist.h"
#include "modbus/protocol/modbus_util.h"
#include "threads/cds/commands/thread_cds_leaves.h"
#include "util/generic_err.h"
#include "util/log.h"

#include <cassert>

std::shared_ptr<CModbusReadDiscretes> CModbusReadDiscretes::create(CModbusProtocolHandler& prot,
                                                                   CModbusPdu& pdu,
                                                                   CModbusDeviceConfig& device) {
    return std::make_shared<CModbusReadDiscretes>(prot, pdu, device);
}

CModbusReadDiscretes::CModbusReadDiscretes(CModbusProtocolHandler& prot, CModbusPdu& pdu,
                                           CModbusDeviceConfig& device)
    : CModbusFunctionHandler(prot, pdu, device) {}

CModbusReadDiscretes::~CModbusReadDiscretes() = default;

void CModbusReadDiscretes::execute() {
    LOG_STACK();
    if (_pdu.data.size() != 4) {
        err(MB_ILLEGAL_FUNCTION);
        return;
    }
    iobuf_const_iter_t it = _pdu.data.begin();
    _start = CModbusUtil::read_u16(it);
    _ninputs = CModbusUtil::read_u16(it);
    if (_ninputs > 0x10000u - _start) {
        err(MB_ILLEGAL_DATA_ADDRESS);
        return;
    }
    if (_ninputs == 0 || _ninputs > max_inputs) {
        err(MB_ILLEGAL_DATA_VALUE);
        return;
    }
    fetch_leaves();
}

void CModbusReadDiscretes::fetch_leaves() {
    LOG_STACK();
    assert(_ninputs > 0);
    const CAddressRange range(_start, static_cast<regaddr_t>(_start + _ninputs - 1));
    _maplist = _device.get_discretes(range);
    fetch(_maplist->get_paths(true, true));
}

void CModbusReadDiscretes::post(CThreadCdsGetLeaves& cmd, bool timed_out) {
    LOG_STACK();
    if (!usable(cmd, timed_out))
        return;
    stop_timer(cmd.take_timer());
    assert(!cmd.leaves().empty());
    assert(_maplist);
    std::vector<bool> bits;
    try {
        _maplist->update_configs(cmd.leaves());
        bits = _maplist->translate_vals(cmd.leaves());
    } catch (const generic_err&) {
        err(MB_ILLEGAL_DATA_ADDRESS);
        return;
    }
    assert(bits.size() == _ninputs);
    const size_t nbytes = (bits.size() + 7) / 8;
    _pdu.data.assign(1 + nbytes, 0);
    _pdu.data[0] = static_cast<uint8_t>(nbytes);
    for (size_t i = 0; i < bits.size(); ++i)
        if (bits[i])
            _pdu.data[1 + i / 8] |= static_cast<uint8_t>(1u << (i % 8));
    _prot.respond();
}
