#pragma once
// The counters of one unit (a TCP unit id, or a serial slave) that the diagnostics function
// (8) and the event counter (11) report and the statistics leaves show, with the unit's
// listen-only mode. The I/O thread alone touches them.
//
// Diagnostics may clear a unit's counters; the transport's own (bus messages, checksum
// errors) are shared by its units and never cleared, so a unit remembers where they stood
// at its last clear and reports what came since.
#include "modbus/protocol/protocol_object.h"
#include "util/transport_counters.h"

#include <array>
#include <cstdint>

struct CUnitCounters {
    // Requests addressed to the unit, broadcasts included.
    uint32_t requests = 0;
    // Requests carried out (the communication event counter): every one that did not end
    // in an exception, but for the event counter's own requests.
    uint32_t events = 0;
    // Requests left unanswered: broadcasts, and requests while listening only.
    uint32_t unanswered = 0;
    // Exception answers sent, in all and by code (1 to 11).
    uint32_t exceptions = 0;
    std::array<uint32_t, 12> by_code{};
    // A serial slave forced to listen only answers nothing but a restart.
    bool listen_only = false;
    // The transport's counters at the last clear.
    CTransportCounters base;

    void count_exception(modbus_err_t code) {
        ++exceptions;
        if (static_cast<size_t>(code) < by_code.size())
            ++by_code[code];
    }
    // Clears the unit's counts; transport: its counters now (null: none). The mode stays.
    void clear(const CTransportCounters* transport) {
        const bool listening = listen_only;
        *this = CUnitCounters();
        listen_only = listening;
        if (transport != nullptr)
            base = *transport;
    }
};
