#pragma once
// CRC-16 as Modbus RTU frames carry it: reflected polynomial 0xA001, initial value 0xFFFF,
// sent low byte first.
#include <cstddef>
#include <cstdint>

namespace crc16 {

// Entry i is the CRC register after shifting byte i through eight rounds.
struct table_t {
    uint16_t entries[256];
    constexpr table_t() : entries() {
        for (unsigned i = 0; i < 256; ++i) {
            uint16_t crc = static_cast<uint16_t>(i);
            for (int bit = 0; bit < 8; ++bit)
                crc = static_cast<uint16_t>((crc & 1) ? (crc >> 1) ^ 0xA001 : crc >> 1);
            entries[i] = crc;
        }
    }
};
constexpr table_t table;
static_assert(table.entries[1] == 0xC0C1 && table.entries[3] == 0x0140, "CRC table");

constexpr uint16_t initial = 0xFFFF;

inline uint16_t step(uint16_t crc, uint8_t byte) {
    return static_cast<uint16_t>((crc >> 8) ^ table.entries[(crc ^ byte) & 0xff]);
}

// Whether the last two of the n bytes at frame are the CRC of the others (n >= 2).
inline bool holds(const uint8_t* frame, size_t n) {
    uint16_t crc = initial;
    for (size_t i = 0; i + 2 < n; ++i)
        crc = step(crc, frame[i]);
    return frame[n - 2] == (crc & 0xff) && frame[n - 1] == (crc >> 8);
}

} // namespace crc16
