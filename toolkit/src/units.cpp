// The units table. The numbers are part of the store's interface (they are kept in
// mapping configurations), so entries are only ever appended.
#include "toolkit/kvr.h"

#include <cstring>

namespace {

enum dimension_t {
    DIM_NONE,
    DIM_VOLTAGE,
    DIM_CURRENT,
    DIM_POWER,
    DIM_APPARENT_POWER,
    DIM_REACTIVE_POWER,
    DIM_ENERGY,
    DIM_APPARENT_ENERGY,
    DIM_REACTIVE_ENERGY,
    DIM_CHARGE,
    DIM_FREQUENCY,
    DIM_TIME,
    DIM_RATIO,
    DIM_RESISTANCE,
    DIM_TEMPERATURE, // offset scales: never converted by a factor
};

struct unit_t {
    int number;
    const char* text;
    dimension_t dimension;
    // Size of the unit in the dimension's base unit: factor * 10^exp10. Kept apart so
    // that ratios such as kV to mV come out exact.
    double factor;
    int exp10;
};

const unit_t k_units[] = {
    {0, "V", DIM_VOLTAGE, 1, 0},
    {1, "mV", DIM_VOLTAGE, 1, -3},
    {2, "kV", DIM_VOLTAGE, 1, 3},
    {3, "A", DIM_CURRENT, 1, 0},
    {4, "mA", DIM_CURRENT, 1, -3},
    {5, "kA", DIM_CURRENT, 1, 3},
    {6, "W", DIM_POWER, 1, 0},
    {7, "kW", DIM_POWER, 1, 3},
    {8, "MW", DIM_POWER, 1, 6},
    {9, "VA", DIM_APPARENT_POWER, 1, 0},
    {10, "kVA", DIM_APPARENT_POWER, 1, 3},
    {11, "MVA", DIM_APPARENT_POWER, 1, 6},
    {12, "var", DIM_REACTIVE_POWER, 1, 0},
    {13, "kvar", DIM_REACTIVE_POWER, 1, 3},
    {14, "Mvar", DIM_REACTIVE_POWER, 1, 6},
    {15, "Wh", DIM_ENERGY, 1, 0},
    {16, "kWh", DIM_ENERGY, 1, 3},
    {17, "MWh", DIM_ENERGY, 1, 6},
    {18, "VAh", DIM_APPARENT_ENERGY, 1, 0},
    {19, "kVAh", DIM_APPARENT_ENERGY, 1, 3},
    {20, "varh", DIM_REACTIVE_ENERGY, 1, 0},
    {21, "kvarh", DIM_REACTIVE_ENERGY, 1, 3},
    {22, "Ah", DIM_CHARGE, 1, 0},
    {23, "mAh", DIM_CHARGE, 1, -3},
    {24, "Hz", DIM_FREQUENCY, 1, 0},
    {25, "mHz", DIM_FREQUENCY, 1, -3},
    {26, "kHz", DIM_FREQUENCY, 1, 3},
    {27, "s", DIM_TIME, 1, 0},
    {28, "ms", DIM_TIME, 1, -3},
    {29, "min", DIM_TIME, 60, 0},
    {30, "h", DIM_TIME, 3600, 0},
    {31, "d", DIM_TIME, 86400, 0},
    {32, "%", DIM_RATIO, 1, -2},
    {33, "ppm", DIM_RATIO, 1, -6},
    {34, "Ohm", DIM_RESISTANCE, 1, 0},
    {35, "mOhm", DIM_RESISTANCE, 1, -3},
    {36, "kOhm", DIM_RESISTANCE, 1, 3},
    {37, "degC", DIM_TEMPERATURE, 0, 0},
    {38, "degF", DIM_TEMPERATURE, 0, 0},
    {39, "K", DIM_TEMPERATURE, 0, 0},
    {KVR_UNITS_NONE, "", DIM_NONE, 1, 0},
};

// Other spellings that devices report.
const struct {
    const char* text;
    int number;
} k_aliases[] = {
    {"\xC2\xB0"
     "C",
     37},
    {"\xC2\xB0"
     "F",
     38},
    {"VAr", 12},
    {"kVAr", 13},
    {"ohm", 34},
    {"none", KVR_UNITS_NONE},
};

const unit_t* find(int number) {
    for (const unit_t& u : k_units)
        if (u.number == number)
            return &u;
    return nullptr;
}

} // namespace

int kvr_units_str_to_enum(const char* text) {
    if (!text)
        return KVR_UNITS_UNKNOWN;
    for (const unit_t& u : k_units)
        if (std::strcmp(u.text, text) == 0)
            return u.number;
    for (const auto& a : k_aliases)
        if (std::strcmp(a.text, text) == 0)
            return a.number;
    return KVR_UNITS_UNKNOWN;
}

const char* kvr_units_enum_to_str(int units) {
    const unit_t* u = find(units);
    return u ? u->text : nullptr;
}

double kvr_units_conversion_ratio(int from, int to) {
    const unit_t* a = find(from);
    const unit_t* b = find(to);
    if (!a || !b)
        return 0.0;
    if (a == b)
        return 1.0;
    if (a->dimension != b->dimension || a->factor == 0.0 || b->factor == 0.0)
        return 0.0;
    double power = 1.0;
    for (int i = 0; i < (a->exp10 > b->exp10 ? a->exp10 - b->exp10 : b->exp10 - a->exp10); ++i)
        power *= 10.0;
    const double ratio = a->factor / b->factor;
    return a->exp10 >= b->exp10 ? ratio * power : ratio / power;
}
