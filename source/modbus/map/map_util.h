#pragma once
// Helpers shared by the mapping classes: reading node values, reporting bad ones, and
// reordering registers. The register helpers work on caller-owned buffers, so that a
// translation allocates nothing.
//
// A mapping file is user input. A value that no meaning can be given is refused through
// fail(), which throws CError with one line naming the file, line, section and key, for the
// code loading the file to log. The readers below give every other value the meaning it has
// always had; CEdsMapping warns about the spellings that are likely mistakes.
#include "modbus/modbus_types.h"

#include "toolkit/eds.h"

#include <cstddef>
#include <cstdint>

class CMapUtil {
public:
    // "FILE:LINE: [label] KEY = VALUE" for a key of the node, "FILE:LINE: [label]" without
    // one (or when the node lacks it); nodes made in code have no file and line.
    static tk_string where(const toolkit::node_map_t& node, const char* key);
    // Throws CError "Error parsing EDS file: 'FILE': <where>: <why>" ("Bad mapping: <where>:
    // <why>" for a node made in code), an error of the mapping subsystem.
    [[noreturn]] static void fail(const toolkit::node_map_t& node, const char* key,
                                  const tk_string& why);
    // Logs "<where>: <why>" as a warning.
    static void warn(const toolkit::node_map_t& node, const char* key, const tk_string& why);

    // The value of key as a number from min to max: decimal, 0x hexadecimal or 0 octal,
    // optional sign. Fails for a missing key, text that is not a number, or a number out of
    // range.
    static long num(const toolkit::node_map_t& node, const char* key, long min, long max);

    // A switch key: on when present with a value other than "" and "0" ("1", but also
    // "big" or "7").
    static bool flag(const toolkit::node_map_t& node, const char* key);
    // A yes/no key: on only when its value is exactly "true" ("True" and "1" are off).
    static bool boolean(const toolkit::node_map_t& node, const char* key);

    // "Multiplier" or "Divider": 0 (none) when absent; present, any 32-bit integer but 0.
    static int32_t scale(const toolkit::node_map_t& node, const char* key);

    // "Units": KVR_UNITS_NONE when absent; a text the store does not know fails.
    static int units(const toolkit::node_map_t& node, tk_string& text);

    // The factor from units `from` to units `to`; 0.0 (no conversion) unless both are set
    // and convert by a factor.
    static double units_factor(int from, int to);

    // Byte `pos` of a register image: register pos / 2, its high byte when pos is even.
    static uint8_t get_byte(const mbreg_t* regs, size_t pos) {
        const mbreg_t r = regs[pos / 2];
        return static_cast<uint8_t>(pos % 2 ? r & 0xff : r >> 8);
    }
    // ORs b into byte `pos`; the image starts zeroed.
    static void put_byte(mbreg_t* regs, size_t pos, uint8_t b) {
        regs[pos / 2] |= static_cast<mbreg_t>(pos % 2 ? b : b << 8);
    }

    // Exchanges the two bytes of each of the count registers.
    static void swap_endianness(mbreg_t* data, size_t count);
    // Reverses the order of the count registers (a full reversal, not a swap of pairs).
    static void swap_word_order(mbreg_t* data, size_t count);
};
