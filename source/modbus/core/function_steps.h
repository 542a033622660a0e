#pragma once
// The steps of every function code, for the table in modbus_function.cpp, and what they share.
// They live in three files: register_window.cpp (reads and writes of registers and bits, with
// the rules that pick between overlapping mappings), identity.cpp (17 and 43) and
// diagnostics.cpp (8 and 11). Each step returns MB_NO_ERROR or the exception to answer with.
#include "modbus/core/modbus_request.h"

#include <cstddef>
#include <cstdint>

namespace steps {

// The largest quantities a request may carry.
constexpr unsigned max_read_bits = 2000;
constexpr unsigned max_read_registers = 125;
constexpr unsigned max_write_bits = 1968;
constexpr unsigned max_write_registers = 120;
constexpr unsigned max_read_write_registers = 121;

// The big-endian word at data[at].
inline uint16_t read_u16(const iobuf_t& data, size_t at) {
    return static_cast<uint16_t>(data[at] << 8 | data[at + 1]);
}

// 1, 2: read coils, discrete inputs.
modbus_err_t plan_read_bits(CModbusRequest& req);
modbus_err_t answer_read_bits(CModbusRequest& req);
// 3, 4: read holding, input registers.
modbus_err_t plan_read_registers(CModbusRequest& req);
modbus_err_t answer_read_registers(CModbusRequest& req);
// 5, 15: write coils.
modbus_err_t plan_write_bits(CModbusRequest& req);
modbus_err_t write_bits(CModbusRequest& req);
// 6, 16 (and the write of 23): write registers.
modbus_err_t plan_write_registers(CModbusRequest& req);
modbus_err_t write_registers(CModbusRequest& req);
// 5, 6, 15, 16, 22: the answer to a write the store took.
modbus_err_t answer_write(CModbusRequest& req);
// 22: mask write register.
modbus_err_t plan_mask_write(CModbusRequest& req);
modbus_err_t mask_write(CModbusRequest& req);
// 23: read/write multiple registers.
modbus_err_t plan_read_write(CModbusRequest& req);
modbus_err_t reread_registers(CModbusRequest& req);

// 17, 43.
modbus_err_t plan_identity(CModbusRequest& req);
modbus_err_t answer_report_server_id(CModbusRequest& req);
modbus_err_t answer_device_id(CModbusRequest& req);

// 8, 11.
modbus_err_t plan_diagnostics(CModbusRequest& req);
modbus_err_t answer_diagnostics(CModbusRequest& req);
modbus_err_t plan_event_counter(CModbusRequest& req);
modbus_err_t answer_event_counter(CModbusRequest& req);
// Whether data (a diagnostics request's) restarts communications.
bool is_restart(const iobuf_t& data);

} // namespace steps
