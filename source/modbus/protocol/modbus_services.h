#pragma once
// What the Modbus protocol handlers are given when they are made: the unit registry, the
// I/O thread's own store connection (bound to the registry's leaves), the way to hand work
// to the CDS thread, and the count of writes handed to it and not yet answered. The owner
// keeps it alive for as long as any handler lives; everything here is for the I/O thread.
#include "threads/commands/thread_command.h"
#include "util/transport_counters.h"

#include <functional>
#include <vector>

class CCdsHandle;
class CEventQueue;
class CModbusConfig;
class CModbusRoles;

struct CModbusServices {
    CModbusConfig* config = nullptr;
    CCdsHandle* reader = nullptr;
    // Queues a command for the CDS thread; never blocks.
    std::function<void(cmd_ptr_t)> submit;
    // While it is not 0, writes queue behind those on the CDS thread, so that they reach the
    // store in the order they came. Null: every write goes to the CDS thread.
    unsigned* queued_writes = nullptr;
    // The newest events of the event log, for event mappings; null: they read as unmapped.
    const CEventQueue* events = nullptr;
    // The transports' counters: TCP's, and each serial interface's by its number (sized
    // before any handler is made). Null: not counted.
    CTransportCounters* tcp_counters = nullptr;
    std::vector<CTransportCounters>* serial_counters = nullptr;
    // What each role of a secure TCP client may ask. Null: secure clients may ask nothing.
    const CModbusRoles* roles = nullptr;
};
