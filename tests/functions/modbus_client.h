#pragma once
// Test helpers around a libmodbus client and raw Modbus TCP frames.
#include <modbus/modbus.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <vector>

struct CModbusDeleter {
    void operator()(modbus_t* ctx) const {
        modbus_close(ctx);
        modbus_free(ctx);
    }
};
typedef std::unique_ptr<modbus_t, CModbusDeleter> modbus_ptr_t;

inline modbus_ptr_t tcp_client(uint16_t port, int unit = 1) {
    modbus_ptr_t ctx(modbus_new_tcp("127.0.0.1", port));
    if (ctx) {
        modbus_set_slave(ctx.get(), unit);
        modbus_set_response_timeout(ctx.get(), 3, 0);
        if (modbus_connect(ctx.get()) != 0)
            ctx.reset();
    }
    return ctx;
}

// The Modbus exception code of libmodbus's last failure (0 for another kind of failure).
inline int exception_code() {
    return errno > MODBUS_ENOBASE && errno < MODBUS_ENOBASE + 12 ? errno - MODBUS_ENOBASE : 0;
}

inline std::vector<uint8_t> u16(uint16_t a, uint16_t b) {
    return {uint8_t(a >> 8), uint8_t(a), uint8_t(b >> 8), uint8_t(b)};
}

// A Modbus TCP request frame: transaction id 7, protocol id, unit, function and data.
inline std::vector<uint8_t> tcp_frame(uint8_t unit, uint8_t function,
                                      const std::vector<uint8_t>& data, uint16_t protocol = 0) {
    std::vector<uint8_t> out = u16(7, protocol);
    for (const auto& part : {u16(uint16_t(data.size() + 2), uint16_t(unit << 8 | function)), data})
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

// The exception response the server must send for a request frame.
inline std::vector<uint8_t> tcp_exception(const std::vector<uint8_t>& request, uint8_t code) {
    return {request[0], request[1], request[2], request[3],
            0,          3,          request[6], uint8_t(request[7] | 0x80),
            code};
}
