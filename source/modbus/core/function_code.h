#pragma once
// The function codes the server knows, by the names the Modbus application protocol gives
// them. The values go on the wire unchanged.
#include <cstdint>

enum function_code_t : uint8_t {
    FC_READ_COILS = 1,
    FC_READ_DISCRETE_INPUTS = 2,
    FC_READ_HOLDING_REGISTERS = 3,
    FC_READ_INPUT_REGISTERS = 4,
    FC_WRITE_SINGLE_COIL = 5,
    FC_WRITE_SINGLE_REGISTER = 6,
    FC_DIAGNOSTICS = 8,
    FC_GET_COMM_EVENT_COUNTER = 11,
    FC_WRITE_MULTIPLE_COILS = 15,
    FC_WRITE_MULTIPLE_REGISTERS = 16,
    FC_REPORT_SERVER_ID = 17,
    FC_MASK_WRITE_REGISTER = 22,
    FC_READ_WRITE_MULTIPLE_REGISTERS = 23,
    FC_ENCAPSULATED_INTERFACE = 43,
};

// The MEI type of function 43 that the server answers.
constexpr uint8_t MEI_READ_DEVICE_ID = 14;
