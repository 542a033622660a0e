#pragma once
// What a serial interface whose Role is Gateway is told: the slave addresses behind it and
// how the server, as the line's master, treats them.
#include <bitset>
#include <cstdint>

struct CGatewaySettings {
    // The slave addresses (1 to 247) that requests are forwarded to on this line.
    std::bitset<256> downstream;
    // How long a slave has to answer, and how often a request is tried again after a time-out
    // or a garbled answer.
    uint32_t response_timeout_ms = 500;
    uint32_t retries = 0;
    // The bus's rest after a broadcast, which nobody answers.
    uint32_t turnaround_delay_ms = 100;
    // Time-outs in a row after which a slave counts as dead (0: never), and how often a dead
    // slave is tried meanwhile.
    uint32_t dead_after = 3;
    uint32_t retry_dead_s = 10;
};
