#pragma once
// What a peer may ask: the function codes and, unless any unit will do, the unit ids its
// requests may carry. A peer without a rule (a plain TCP port, a serial line) may ask
// anything; a rule that names nothing refuses everything.
#include <bitset>
#include <cstdint>

struct CAccessRule {
    // A set of numbers from 0 to 255.
    using set_t = std::bitset<256>;

    set_t functions;
    // Unset: only the units in `units`.
    bool any_unit = true;
    set_t units;

    bool allows(uint8_t function, uint8_t unit) const {
        return functions.test(function) && (any_unit || units.test(unit));
    }
};
