#pragma once
// What the Modbus protocol handlers are given when they are made: the unit registry, the way to
// the store, the newest events, the transports' counters and the secure clients' rights. The
// owner keeps it alive for as long as any handler lives; everything here is for the I/O
// thread.
#include "util/transport_counters.h"

#include <vector>

class CEventQueue;
class CGatewayRouter;
class CModbusConfig;
class CModbusRoles;
class CStoreAccess;

struct CModbusServices {
    CModbusConfig* config = nullptr;
    CStoreAccess* store = nullptr;
    // The newest events of the event log, for event mappings; null: they read as unmapped.
    const CEventQueue* events = nullptr;
    // The TCP transport's counters; null: not counted.
    CTransportCounters* tcp_counters = nullptr;
    // The RTU over TCP and UDP transports' counters; null: not counted.
    CTransportCounters* rtu_over_tcp_counters = nullptr;
    CTransportCounters* udp_counters = nullptr;
    // What each role of a secure TCP client may ask. Null: secure clients may ask nothing.
    const CModbusRoles* roles = nullptr;
    // The gateway lines, for units that no local unit serves; null: none.
    CGatewayRouter* gateway = nullptr;
};
