#pragma once
// Helpers shared by the mapping classes: reading node values and reordering registers.
#include "modbus/modbus_types.h"

#include "toolkit/eds.h"

#include <cstddef>
#include <cstdint>

class CMapUtil {
public:
    // The whole value as a number: decimal, 0x hexadecimal or 0 octal, optional sign.
    // Empty text or trailing characters throw generic_err; out-of-range input saturates.
    static long num(toolkit::node_map_t::const_iterator it);

    // A switch key: set when present with a non-empty value other than "0".
    static bool flag(const toolkit::node_map_t& node, const char* key);

    // "Multiplier" or "Divider": 0 when absent; present, it must not be 0. Values beyond
    // 32 bits saturate, as they do where long is 32 bits.
    static int32_t scale(const toolkit::node_map_t& node, const char* key);

    // "Units": KVR_UNITS_NONE when absent; a text the store does not know throws.
    static int units(const toolkit::node_map_t& node, tk_string& text);

    // The factor from units `from` to units `to`; 0.0 (no conversion) unless both are set
    // and convert by a factor.
    static double units_factor(int from, int to);

    // Byte `pos` of a register image: register pos / 2, its high byte when pos is even.
    static uint8_t get_byte(const regvec_t& regs, size_t pos) {
        const mbreg_t r = regs[pos / 2];
        return static_cast<uint8_t>(pos % 2 ? r & 0xff : r >> 8);
    }
    // ORs b into byte `pos`; the image starts zeroed.
    static void put_byte(regvec_t& regs, size_t pos, uint8_t b) {
        regs[pos / 2] |= static_cast<mbreg_t>(pos % 2 ? b : b << 8);
    }

    // Exchanges the two bytes of every register.
    static void swap_endianness(regvec_t& data);
    // Reverses the register order (a full reversal, not a swap of pairs).
    static void swap_word_order(regvec_t& data);
};
