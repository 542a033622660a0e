#pragma once
// What the Modbus protocol handlers are given when they are made: the unit registry, the
// I/O thread's own store connection (bound to the registry's leaves), and the way to hand
// work to the CDS thread. The owner keeps it alive for as long as any handler lives.
#include "threads/commands/thread_command.h"

#include <functional>

class CCdsHandle;
class CModbusConfig;

struct CModbusServices {
    CModbusConfig* config = nullptr;
    CCdsHandle* reader = nullptr;
    // Queues a command for the CDS thread; never blocks.
    std::function<void(cmd_ptr_t)> submit;
};
