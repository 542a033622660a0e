#include "modbus/address_range/address_range.h"

#include <cassert>

bool CAddressRange::operator<(const CAddressRange& x) const {
    assert(second >= first);
    assert(x.second >= x.first);
    return second < x.first;
}

size_t CAddressRange::size() const {
    assert(second >= first);
    return static_cast<size_t>(second - first) + 1;
}

CAddressRange CAddressRange::all_addrs() {
    return CAddressRange(0, 65535);
}
