#pragma once
// An inclusive range of Modbus addresses, the key of every mapping index.
//
// The ordering treats overlapping ranges as equivalent: a range is "less" only when it lies
// wholly below the other. An ordered multimap keyed by ranges therefore answers
// equal_range(r) with every stored range that shares an address with r.
#include "modbus/modbus_types.h"

#include <cstddef>

class CAddressRange {
public:
    // No check here; the operations assert second >= first.
    CAddressRange(regaddr_t first, regaddr_t second) : first(first), second(second) {}

    bool operator<(const CAddressRange& x) const;
    size_t size() const;

    // The whole address space, 0 to 65535.
    static CAddressRange all_addrs();

    regaddr_t first;
    regaddr_t second;
};
