#pragma once
// One row of a unit's profile: nineteen texts, one per column, in column order.
//
// A new row is empty except "Discrete" = "No", "Type" = "INVALID", "Is Timestamp" = "No".
// Translators fill the fields that depend on their type; the profile builder fills the
// rest from the parameter's attributes.
#include "toolkit/tk_string.h"

#include <array>
#include <cstddef>

class CProfileMapping {
public:
    enum field_t {
        PARAMETER_NAME,
        DISPLAY_NAME,
        BASE_ADDRESS,
        DISCRETE,
        UNITS,
        TYPE,
        SIZE,
        IS_TIMESTAMP,
        BIT_OFFSET,
        SWAP_BYTES,
        SWAP_WORDS,
        DIVIDER,
        MULTIPLIER,
        DATE_SPEC,
        ALARM_ON_FALSE,
        WRITABLE,
        MODBUS_VALUE,
        POSSIBLE_VALUES,
        DESCRIPTION,
        FIELD_COUNT
    };

    CProfileMapping() {
        _fields[DISCRETE] = "No";
        _fields[TYPE] = "INVALID";
        _fields[IS_TIMESTAMP] = "No";
    }

    tk_string& operator[](field_t f) { return _fields[f]; }
    const tk_string& operator[](field_t f) const { return _fields[f]; }

private:
    std::array<tk_string, FIELD_COUNT> _fields;
};
