#pragma once
// RTU request frames as the Modbus application protocol lays them out, written here apart from
// the server's own length rule, so that targets check the framers against it.
#include <cstddef>
#include <cstdint>

namespace rtu_layout {

inline uint16_t crc16(const uint8_t* p, size_t n) {
    uint16_t crc = 0xFFFF;
    for (size_t i = 0; i < n; ++i) {
        crc ^= p[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001) : crc >> 1;
    }
    return crc;
}

// Whether the n-byte frame at f ends with the CRC of the bytes before it, low byte first.
inline bool crc_holds(const uint8_t* f, size_t n) {
    if (n < 3)
        return false;
    const uint16_t crc = crc16(f, n - 2);
    return f[n - 2] == (crc & 0xFF) && f[n - 1] == (crc >> 8);
}

// The whole length (address, PDU, CRC) of the request whose first n bytes are at f, for the
// functions the server answers; 0 for another function, or while n bytes do not tell.
inline size_t request_length(const uint8_t* f, size_t n) {
    if (n < 2)
        return 0;
    switch (f[1]) {
    case 1:
    case 2:
    case 3:
    case 4:
    case 5:
    case 6:
    case 8:
        return 8;
    case 15:
    case 16:
        return n > 6 ? 9u + f[6] : 0;
    case 11:
    case 17:
        return 4;
    case 22:
        return 10;
    case 23:
        return n > 10 ? 13u + f[10] : 0;
    case 43:
        return 7;
    default:
        return 0;
    }
}

} // namespace rtu_layout
