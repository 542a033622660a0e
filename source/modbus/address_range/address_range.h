#pragma once
// An inclusive range of Modbus addresses, the key of every mapping index (CIntervalIndex).
#include "modbus/modbus_types.h"

#include <cstddef>

class CAddressRange {
public:
    // No check here; size() asserts second >= first.
    CAddressRange(regaddr_t first, regaddr_t second) : first(first), second(second) {}

    size_t size() const;
    // True when the two ranges share at least one address.
    bool overlaps(const CAddressRange& x) const { return first <= x.second && x.first <= second; }

    // The whole address space, 0 to 65535.
    static CAddressRange all_addrs();

    regaddr_t first;
    regaddr_t second;
};
