#pragma once
// Helpers shared by the framing suites.
#include "modbus/protocol/protocol_object.h"

#include <initializer_list>

inline iobuf_t bytes(std::initializer_list<uint8_t> list) {
    return iobuf_t(list);
}

template <class T> iobuf_t serialized(T& object) {
    iobuf_t out;
    object.serialize(out);
    return out;
}
