#pragma once
// Which gateway line serves which unit id: one CGatewayLine per serial interface whose Role is
// Gateway, built from the settings at start. A unit id claimed twice, by a local unit (TCP or
// RTU over TCP) and a gateway line or by two lines, stops start-up: the constructor throws
// CError naming both.
// Read-only once built but for the lines themselves; everything is for the I/O thread.
#include "modbus/config/modbus_settings.h"
#include "modbus/gateway/gateway_line.h"

#include <array>
#include <memory>
#include <utility>
#include <vector>

class CGatewayRouter {
public:
    // A statistics leaf: its path under the statistics node, and the counter it shows.
    using leaf_t = std::pair<tk_string, const uint32_t*>;

    explicit CGatewayRouter(const CModbusSettings& settings);
    CGatewayRouter(const CGatewayRouter&) = delete;
    CGatewayRouter& operator=(const CGatewayRouter&) = delete;

    bool empty() const { return _lines.empty(); }
    // The line behind which unit is; null when none is.
    CGatewayLine* line_for(uint8_t unit) const { return _by_unit[unit]; }
    // The line of the interface numbered so; null when it is no gateway.
    CGatewayLine* line_of(unsigned interface) const;
    // Queues pdu as a broadcast on every line.
    void broadcast(const void* source, const CModbusPdu& pdu);
    void set_defer(const CGatewayLine::defer_t& defer);

    // Each slave's leaves, "Serial/<interface>/Downstream <address>/<leaf>".
    std::vector<leaf_t> statistics() const;

private:
    std::vector<std::pair<unsigned, std::unique_ptr<CGatewayLine>>> _lines;
    std::array<CGatewayLine*, 256> _by_unit{};
};
