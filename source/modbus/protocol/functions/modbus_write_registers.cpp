#include "modbus/protocol/functions/modbus_write_registers.h"

#include "io/io_timer.h"
#include "modbus/address_range/address_range.h"
#include "modbus/config/modbus_device_config.h"
#include "modbus/maplist/register_maplist.h"
#include "modbus/protocol/functions/modbus_write_common.h"
#include "threads/cds/commands/thread_cds_leaves.h"
#include "util/generic_err.h"
#include "util/log.h"

namespace {
size_t register_bytes(uint16_t quantity) {
    return 2u * quantity;
}
} // namespace

std::shared_ptr<CModbusWriteRegisters> CModbusWriteRegisters::create(CModbusProtocolHandler& prot,
                                                                     CModbusPdu& pdu,
                                                                     CModbusDeviceConfig& device) {
    return std::make_shared<CModbusWriteRegisters>(prot, pdu, device);
}

CModbusWriteRegisters::CModbusWriteRegisters(CModbusProtocolHandler& prot, CModbusPdu& pdu,
                                             CModbusDeviceConfig& device)
    : CModbusFunctionHandler(prot, pdu, device) {}

CModbusWriteRegisters::~CModbusWriteRegisters() = default;

bool CModbusWriteRegisters::verify_length(const CModbusPdu& pdu) {
    return modbus_write::verify_length(pdu, 0x06, 0x10);
}

bool CModbusWriteRegisters::parse_values() {
    iobuf_const_iter_t it = _pdu.data.begin();
    if (_pdu.function == 0x06) {
        if (_pdu.data.size() != 4)
            return false;
        _start = CModbusUtil::read_u16(it);
        _values.push_back(CModbusUtil::read_u16(it));
        return true;
    }
    uint16_t quantity = 0;
    if (!modbus_write::read_multiple_header(_pdu, _start, quantity, register_bytes, max_registers))
        return false;
    it += 5;
    for (uint16_t i = 0; i < quantity; ++i)
        _values.push_back(CModbusUtil::read_u16(it));
    return true;
}

void CModbusWriteRegisters::execute() {
    LOG_STACK();
    _values.clear();
    if (!parse_values() || _values.empty()) {
        err(MB_ILLEGAL_DATA_VALUE);
        return;
    }
    if (!modbus_write::fits(_start, _values.size())) {
        err(MB_ILLEGAL_DATA_ADDRESS);
        return;
    }
    fetch_leaves();
}

void CModbusWriteRegisters::fetch_leaves() {
    LOG_STACK();
    assert(!_values.empty());
    const CAddressRange range(_start, static_cast<regaddr_t>(_start + _values.size() - 1));
    _maplist = _device.get_registers(range);
    cds_leaf_set_t leaves = _maplist->get_paths(true, true);
    if (leaves.empty())
        LOG_DEBUG(SS_FUNCTION_CODES, 2, "No parameters in requested range");
    fetch(std::move(leaves));
}

void CModbusWriteRegisters::post(CThreadCdsGetLeaves& cmd, bool timed_out) {
    LOG_STACK();
    if (!usable(cmd, timed_out))
        return;
    assert(!cmd.leaves().empty());
    assert(_maplist);
    write_values(cmd);
}

void CModbusWriteRegisters::write_values(CThreadCdsGetLeaves& cmd) {
    write(cmd, [&] {
        _maplist->update_configs(cmd.leaves());
        const int covered = _maplist->check_range(cmd.leaves(), _values);
        if (covered < 0 || static_cast<size_t>(covered) < _values.size()) {
            LOG_DEBUG(SS_FUNCTION_CODES, 2,
                      "After _maplist->check_vals() call - registers %d, _values.size() %zu",
                      covered, _values.size());
            throw generic_err();
        }
        // Padding past the last address would wrap; refuse it.
        if (!modbus_write::fits(_start, static_cast<size_t>(covered)))
            throw generic_err();
        _values.resize(static_cast<size_t>(covered), 0);
        return _maplist->get_vals(cmd.leaves(), _values);
    });
}

void CModbusWriteRegisters::post(CThreadCdsSetLeaves& cmd, bool timed_out) {
    LOG_STACK();
    write_done(cmd, timed_out, 0x06);
}
