// The function table: per code its length rules and its steps.
#include "modbus/core/modbus_function.h"

#include "modbus/core/function_code.h"
#include "modbus/core/function_steps.h"

#include <cassert>

namespace {

using namespace steps;

const CModbusFunction functions[] = {
    {FC_READ_COILS, 4, 0, plan_read_bits, nullptr, nullptr, answer_read_bits, true},
    {FC_READ_DISCRETE_INPUTS, 4, 0, plan_read_bits, nullptr, nullptr, answer_read_bits, true},
    {FC_READ_HOLDING_REGISTERS, 4, 0, plan_read_registers, nullptr, nullptr, answer_read_registers,
     true},
    {FC_READ_INPUT_REGISTERS, 4, 0, plan_read_registers, nullptr, nullptr, answer_read_registers,
     true},
    {FC_WRITE_SINGLE_COIL, 4, 0, plan_write_bits, write_bits, nullptr, answer_write, true},
    {FC_WRITE_SINGLE_REGISTER, 4, 0, plan_write_registers, write_registers, nullptr, answer_write,
     true},
    {FC_WRITE_MULTIPLE_COILS, 5, 5, plan_write_bits, write_bits, nullptr, answer_write, true},
    {FC_WRITE_MULTIPLE_REGISTERS, 5, 5, plan_write_registers, write_registers, nullptr,
     answer_write, true},
    {FC_MASK_WRITE_REGISTER, 6, 0, plan_mask_write, mask_write, nullptr, answer_write, true},
    {FC_READ_WRITE_MULTIPLE_REGISTERS, 9, 9, plan_read_write, write_registers, reread_registers,
     answer_read_registers, true},
    {FC_REPORT_SERVER_ID, 0, 0, plan_identity, nullptr, nullptr, answer_report_server_id, true},
    {FC_ENCAPSULATED_INTERFACE, 3, 0, plan_identity, nullptr, nullptr, answer_device_id, true},
    {FC_DIAGNOSTICS, 4, 0, plan_diagnostics, nullptr, nullptr, answer_diagnostics, true},
    {FC_GET_COMM_EVENT_COUNTER, 0, 0, plan_event_counter, nullptr, nullptr, answer_event_counter,
     false},
};

} // namespace

size_t CModbusFunction::request_length(const uint8_t* pdu, size_t n) const {
    if (count_at == 0)
        return 1u + min_data;
    return n <= count_at ? 0 : count_at + 1u + pdu[count_at];
}

bool CModbusFunction::complete(const CModbusPdu& pdu) const {
    const iobuf_t& data = pdu.data;
    if (data.size() < min_data)
        return false;
    // data starts after the function code.
    return count_at == 0 || data.size() >= count_at + data[count_at - 1u];
}

size_t CModbusFunction::rtu_length(const uint8_t* frame, size_t n) {
    assert(n >= 2);
    const CModbusFunction* f = find(frame[1]);
    if (f == nullptr)
        return no_frame;
    const size_t pdu = f->request_length(frame + 1, n - 1);
    return pdu == 0 ? 0 : 1 + pdu + 2;
}

bool CModbusFunction::is_restart(const CModbusPdu& pdu) {
    return pdu.function == FC_DIAGNOSTICS && steps::is_restart(pdu.data);
}

const CModbusFunction* CModbusFunction::find(uint8_t code) {
    for (const CModbusFunction& f : functions)
        if (f.code == code)
            return &f;
    return nullptr;
}
