#include "modbus/address_range/address_range.h"

#include <cassert>

size_t CAddressRange::size() const {
    assert(second >= first);
    return static_cast<size_t>(second - first) + 1;
}

CAddressRange CAddressRange::all_addrs() {
    return CAddressRange(0, 65535);
}
