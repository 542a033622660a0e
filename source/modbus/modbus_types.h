#pragma once
// Scalar types shared by the Modbus code.
#include <cstdint>
#include <vector>

typedef uint16_t mbreg_t;              // one register
typedef std::vector<mbreg_t> regvec_t; // element 0 at the lowest address
typedef uint16_t regaddr_t;            // register or coil address
typedef uint8_t unit_id_t;             // TCP unit id
typedef uint8_t slave_addr_t;          // serial slave address
