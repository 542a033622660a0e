#include "modbus/gateway/gateway_router.h"

#include "util/error.h"

CGatewayRouter::CGatewayRouter(const CModbusSettings& settings) {
    // Who claims each unit id, for the message when a second one does.
    std::array<tk_string, 256> claimed;
    for (const CModbusTcpUnitSettings& unit : settings.tcp().units())
        claimed[unit.unit_id()] =
            "TCP unit " + std::to_string(unit.unit_id()) + " of '" + unit.device_path() + "'";
    for (const CModbusTcpUnitSettings& unit : settings.tcp().rtu_over_tcp_units())
        if (claimed[unit.unit_id()].empty())
            claimed[unit.unit_id()] = "RTU over TCP unit " + std::to_string(unit.unit_id()) +
                                      " of '" + unit.device_path() + "'";
    for (const CModbusSerialInterfaceSettings& iface : settings.serial().interfaces()) {
        if (iface.role() != CModbusSerialInterfaceSettings::ROLE_GATEWAY)
            continue;
        auto line = std::make_unique<CGatewayLine>(iface.name(), iface.gateway());
        const tk_string who = "gateway line '" + iface.name() + "'";
        for (unsigned unit = 1; unit < 256; ++unit) {
            if (!line->serves(static_cast<uint8_t>(unit)))
                continue;
            if (!claimed[unit].empty())
                throw CError("Unit id " + std::to_string(unit) + " is claimed twice: by " +
                                 claimed[unit] + " and by " + who +
                                 " (its Downstream list); give each unit id to one only",
                             SS_SETTINGS);
            claimed[unit] = who;
            _by_unit[unit] = line.get();
        }
        _lines.emplace_back(iface.number(), std::move(line));
    }
}

CGatewayLine* CGatewayRouter::line_of(unsigned interface) const {
    for (const auto& line : _lines)
        if (line.first == interface)
            return line.second.get();
    return nullptr;
}

void CGatewayRouter::broadcast(const void* source, const CModbusPdu& pdu) {
    for (const auto& line : _lines)
        line.second->broadcast(source, pdu);
}

void CGatewayRouter::set_defer(const CGatewayLine::defer_t& defer) {
    for (const auto& line : _lines)
        line.second->set_defer(defer);
}

std::vector<CGatewayRouter::leaf_t> CGatewayRouter::statistics() const {
    std::vector<leaf_t> out;
    for (const auto& entry : _lines) {
        const CGatewayLine& line = *entry.second;
        for (unsigned unit = 1; unit < 256; ++unit) {
            const CDownstreamCounters* c = line.counters(static_cast<uint8_t>(unit));
            if (c == nullptr)
                continue;
            const tk_string node =
                "Serial/" + line.name() + "/Downstream " + std::to_string(unit) + "/";
            const std::pair<const char*, const uint32_t*> leaves[] = {
                {"Requests", &c->requests},
                {"Answers", &c->answers},
                {"Exceptions", &c->exceptions},
                {"Time-outs", &c->timeouts},
                {"CRC Errors", &c->crc_errors},
                {"Last Response Time", &c->last_us},
                {"Shortest Response Time", &c->shortest_us},
                {"Longest Response Time", &c->longest_us},
                {"Mean Response Time", &c->mean_us},
            };
            for (const auto& leaf : leaves)
                out.emplace_back(node + leaf.first, leaf.second);
        }
    }
    return out;
}
