#include "modbus/protocol/functions/modbus_write_discretes.h"

#include "io/io_timer.h"
#include "modbus/address_range/address_range.h"
#include "modbus/config/modbus_device_config.h"
#include "modbus/maplist/discrete_maplist.h"
#include "modbus/protocol/functions/modbus_write_common.h"
#include "threads/cds/commands/thread_cds_leaves.h"
#include "util/generic_err.h"
#include "util/log.h"

namespace {
size_t coil_bytes(uint16_t quantity) {
    return (quantity + 7u) / 8u;
}
} // namespace

std::shared_ptr<CModbusWriteDiscretes> CModbusWriteDiscretes::create(CModbusProtocolHandler& prot,
                                                                     CModbusPdu& pdu,
                                                                     CModbusDeviceConfig& device) {
    return std::make_shared<CModbusWriteDiscretes>(prot, pdu, device);
}

CModbusWriteDiscretes::CModbusWriteDiscretes(CModbusProtocolHandler& prot, CModbusPdu& pdu,
                                             CModbusDeviceConfig& device)
    : CModbusFunctionHandler(prot, pdu, device) {}

CModbusWriteDiscretes::~CModbusWriteDiscretes() = default;

bool CModbusWriteDiscretes::verify_length(const CModbusPdu& pdu) {
    return modbus_write::verify_length(pdu, 0x05, 0x0F);
}

bool CModbusWriteDiscretes::parse_values() {
    if (_pdu.function == 0x05) {
        if (_pdu.data.size() != 4)
            return false;
        iobuf_const_iter_t it = _pdu.data.begin();
        _start = CModbusUtil::read_u16(it);
        const uint16_t value = CModbusUtil::read_u16(it);
        if (value != 0x0000 && value != 0xFF00)
            return false;
        _values.push_back(value != 0);
        return true;
    }
    uint16_t quantity = 0;
    if (!modbus_write::read_multiple_header(_pdu, _start, quantity, coil_bytes, max_coils))
        return false;
    for (uint16_t i = 0; i < quantity; ++i)
        _values.push_back((_pdu.data[5 + i / 8] >> (i % 8)) & 1);
    assert(_values.size() == quantity);
    return true;
}

void CModbusWriteDiscretes::execute() {
    LOG_STACK();
    _values.clear();
    if (!parse_values() || _values.empty()) {
        err(MB_ILLEGAL_DATA_VALUE);
        return;
    }
    // A coil range running past the last address would wrap; refuse it.
    if (!modbus_write::fits(_start, _values.size())) {
        err(MB_ILLEGAL_DATA_ADDRESS);
        return;
    }
    fetch_leaves();
}

void CModbusWriteDiscretes::fetch_leaves() {
    LOG_STACK();
    assert(!_values.empty());
    const CAddressRange range(_start, static_cast<regaddr_t>(_start + _values.size() - 1));
    _maplist = _device.get_discretes(range);
    fetch(_maplist->get_paths(true, true));
}

void CModbusWriteDiscretes::post(CThreadCdsGetLeaves& cmd, bool timed_out) {
    LOG_STACK();
    if (!usable(cmd, timed_out))
        return;
    assert(!cmd.leaves().empty());
    assert(_maplist);
    write_values(cmd);
}

void CModbusWriteDiscretes::write_values(CThreadCdsGetLeaves& cmd) {
    write(cmd, [&] {
        _maplist->update_configs(cmd.leaves());
        cds_leaf_set_t out = _maplist->get_vals(cmd.leaves(), _values);
        if (out.empty())
            LOG_DEBUG(SS_FUNCTION_CODES, 2, "Address range doesn't map into any leaves");
        return out;
    });
}

void CModbusWriteDiscretes::post(CThreadCdsSetLeaves& cmd, bool timed_out) {
    LOG_STACK();
    write_done(cmd, timed_out, 0x05);
}
