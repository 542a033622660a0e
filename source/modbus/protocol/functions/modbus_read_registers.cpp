#include "modbus/protocol/functions/modbus_read_registers.h"

#include "io/io_timer.h"
#include "modbus/address_range/address_range.h"
#include "modbus/config/modbus_device_config.h"
#include "modbus/maplist/register_maplist.h"
#include "modbus/protocol/modbus_util.h"
#include "server_core/server_core.h"
#include "threads/cds/commands/thread_cds_leaves.h"
#include "util/generic_err.h"
#include "util/log.h"

#include <cassert>

std::shared_ptr<CModbusReadRegisters> CModbusReadRegisters::create(CModbusProtocolHandler& prot,
                                                                   CModbusPdu& pdu,
                                                                   CModbusDeviceConfig& device) {
    return std::make_shared<CModbusReadRegisters>(prot, pdu, device);
}

CModbusReadRegisters::CModbusReadRegisters(CModbusProtocolHandler& prot, CModbusPdu& pdu,
                                           CModbusDeviceConfig& device)
    : CModbusFunctionHandler(prot, pdu, device) {}

CModbusReadRegisters::~CModbusReadRegisters() = default;

void CModbusReadRegisters::execute() {
    LOG_STACK();
    if (_pdu.data.size() != 4) {
        err(MB_ILLEGAL_FUNCTION);
        return;
    }
    iobuf_const_iter_t it = _pdu.data.begin();
    _start = CModbusUtil::read_u16(it);
    _nregs = CModbusUtil::read_u16(it);
    if (_nregs > 0x10000u - _start) {
        err(MB_ILLEGAL_DATA_ADDRESS);
        return;
    }
    if (_nregs == 0 || _nregs > max_registers) {
        LOG_DEBUG(SS_FUNCTION_CODES, 2, "Invalid request length (%u)", _nregs);
        err(MB_ILLEGAL_DATA_VALUE);
        return;
    }
    fetch_leaves();
}

void CModbusReadRegisters::fetch_leaves() {
    LOG_STACK();
    assert(_nregs > 0);
    const CAddressRange range(_start, static_cast<regaddr_t>(_start + _nregs - 1));
    _maplist = _device.get_registers(range);
    fetch(_maplist->get_paths(true, true));
}

void CModbusReadRegisters::post(CThreadCdsGetLeaves& cmd, bool timed_out) {
    LOG_STACK();
    if (!usable(cmd, timed_out))
        return;
    stop_timer(cmd.take_timer());
    assert(!cmd.leaves().empty());
    assert(_maplist);
    regvec_t regs;
    try {
        _maplist->update_configs(cmd.leaves());
        regs = _maplist->translate_vals(cmd.leaves(), _prot.get_server_core().ev_queue());
    } catch (const generic_err&) {
        err(MB_ILLEGAL_DATA_ADDRESS);
        return;
    }
    assert(regs.size() == _nregs);
    _pdu.data.assign(1 + 2 * regs.size(), 0);
    _pdu.data[0] = static_cast<uint8_t>(2 * regs.size());
    auto out = _pdu.data.begin() + 1;
    for (const mbreg_t reg : regs)
        CModbusUtil::write_u16(out, reg);
    _prot.respond();
}
