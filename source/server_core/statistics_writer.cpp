#include "server_core/statistics_writer.h"

#include "cds/cds_handle.h"
#include "modbus/config/modbus_config.h"
#include "modbus/config/modbus_settings.h"
#include "store/store_worker.h"
#include "util/log.h"

#include <map>

const char* const CStatisticsWriter::root = "/Software/Data Servers/Modbus/Statistics";

std::shared_ptr<CStatisticsWriter> CStatisticsWriter::create(
    CIoManager& manager, const CModbusConfig& config, const CTransportCounters& tcp,
    const std::vector<CTransportCounters>& serial_counters,
    const std::vector<CModbusSerialInterfaceSettings>& interfaces, CStoreWorker& worker,
    const CTransportCounters* rtu_over_tcp, const CTransportCounters* udp, const leaves_t& more) {
    std::shared_ptr<CStatisticsWriter> writer(new CStatisticsWriter(manager, worker));
    writer->_entries = entries(config, tcp, serial_counters, interfaces, rtu_over_tcp, udp, more);
    writer->start();
    return writer;
}

CStatisticsWriter::CStatisticsWriter(CIoManager& manager, CStoreWorker& worker)
    : CPeriodicActor(manager, std::chrono::seconds(1)), _worker(worker) {}

namespace {

typedef std::vector<std::pair<tk_string, const uint32_t*>> named_t;

void add(named_t& out, const tk_string& node, const char* name, const uint32_t& counter) {
    out.emplace_back(node + "/" + name + "/Value", &counter);
}

enum class transport_t { tcp, serial, rtu_over_tcp, udp };

void add_transport(named_t& out, const tk_string& node, const CTransportCounters& t,
                   transport_t kind) {
    add(out, node, "Messages", t.messages);
    if (kind == transport_t::serial || kind == transport_t::rtu_over_tcp)
        add(out, node, "Checksum Errors", t.checksum_errors);
    if (kind != transport_t::serial)
        add(out, node, "Unknown Units", t.unknown_units);
    if (kind == transport_t::tcp || kind == transport_t::rtu_over_tcp) {
        add(out, node, "Connections Open", t.open);
        add(out, node, "Connections Total", t.total);
        add(out, node, "Connections Evicted", t.evicted);
    }
    if (kind == transport_t::udp) {
        add(out, node, "Datagrams Dropped", t.dropped);
        add(out, node, "Datagrams Refused", t.refused);
    }
}

void add_unit(named_t& out, const tk_string& node, uint8_t unit, const CUnitCounters& c) {
    const tk_string path = node + "/Unit " + std::to_string(unit);
    add(out, path, "Requests", c.requests);
    add(out, path, "Events", c.events);
    add(out, path, "Unanswered", c.unanswered);
    add(out, path, "Exceptions", c.exceptions);
    static const char* const names[] = {"", "Exception 1", "Exception 2", "Exception 3",
                                        "Exception 4"};
    for (unsigned code = 1; code <= 4; ++code)
        add(out, path, names[code], c.by_code[code]);
    add(out, path, "Time-outs", c.by_code[MB_GATEWAY_TARGET_FAILED]);
}

// A node of the leaf tree that leaves_json prints; a leaf has no children.
struct CJsonNode {
    std::map<tk_string, CJsonNode> children;
};

tk_string quoted(const tk_string& text) {
    tk_string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\')
            out += '\\';
        out += c;
    }
    return out + "\"";
}

void print(const CJsonNode& node, const tk_string& indent, tk_string& out) {
    if (node.children.empty()) {
        out += "{ \"$type\": \"uint\", \"$value\": 0 }";
        return;
    }
    out += "{\n";
    size_t left = node.children.size();
    for (const auto& child : node.children) {
        out += indent + "  " + quoted(child.first) + ": ";
        print(child.second, indent + "  ", out);
        out += --left != 0 ? ",\n" : "\n";
    }
    out += indent + "}";
}

} // namespace

CStatisticsWriter::entries_t
CStatisticsWriter::entries(const CModbusConfig& config, const CTransportCounters& tcp,
                           const std::vector<CTransportCounters>& serial_counters,
                           const std::vector<CModbusSerialInterfaceSettings>& interfaces,
                           const CTransportCounters* rtu_over_tcp, const CTransportCounters* udp,
                           const leaves_t& more) {
    named_t named;
    const tk_string base = root;
    add_transport(named, base + "/TCP", tcp, transport_t::tcp);
    for (const auto& unit : config.tcp_units())
        add_unit(named, base + "/TCP", unit.first, unit.second->counters());
    if (rtu_over_tcp != nullptr) {
        add_transport(named, base + "/RTU over TCP", *rtu_over_tcp, transport_t::rtu_over_tcp);
        for (const auto& unit : config.rtu_over_tcp_units())
            add_unit(named, base + "/RTU over TCP", unit.first, unit.second->counters());
    }
    if (udp != nullptr)
        add_transport(named, base + "/UDP", *udp, transport_t::udp);
    for (const CModbusSerialInterfaceSettings& iface : interfaces) {
        if (iface.number() >= serial_counters.size())
            continue;
        const tk_string node = base + "/Serial/" + iface.name();
        add_transport(named, node, serial_counters[iface.number()], transport_t::serial);
        for (const auto& slave : config.serial_units())
            if (slave.first.first == iface.number())
                add_unit(named, node, slave.first.second, slave.second->counters());
        if (iface.local_echo())
            add(named, node, "Echo Errors", serial_counters[iface.number()].echo_errors);
    }
    for (const auto& leaf : more)
        named.emplace_back(base + "/" + leaf.first + "/Value", leaf.second);
    entries_t out;
    for (auto& n : named)
        out.push_back({std::move(n.first), n.second, ~*n.second}); // written at the first chance
    return out;
}

tk_string
CStatisticsWriter::leaves_json(const CModbusConfig& config,
                               const std::vector<CModbusSerialInterfaceSettings>& interfaces,
                               bool rtu_over_tcp, bool udp, const leaves_t& more) {
    const CTransportCounters none;
    const std::vector<CTransportCounters> lines(interfaces.size());
    CJsonNode tree;
    for (const entry_t& e : entries(config, none, lines, interfaces,
                                    rtu_over_tcp ? &none : nullptr, udp ? &none : nullptr,
                                    more)) {
        CJsonNode* node = &tree;
        std::vector<tk_string> parts;
        toolkit::CElement::split_string(parts, e.path, '/');
        for (const tk_string& part : parts)
            node = &node->children[part];
    }
    tk_string out;
    print(tree, "", out);
    return out + "\n";
}

void CStatisticsWriter::tick() {
    if (_pending)
        return;
    auto leaves = std::make_shared<std::unordered_set<CCdsLeaf>>();
    for (entry_t& e : _entries) {
        if (*e.counter == e.written)
            continue;
        e.written = *e.counter;
        leaves->emplace(e.path, toolkit::CElement::from_uint(e.written));
    }
    if (leaves->empty())
        return;
    _pending = true;
    std::weak_ptr<CStatisticsWriter> weak =
        std::static_pointer_cast<CStatisticsWriter>(shared_from_this());
    _worker.run(
        [leaves](CCdsHandle& cds) {
            cds.set(*leaves, tk_string());
            return true;
        },
        [weak, leaves](bool ok) {
            if (const auto self = weak.lock())
                self->written(ok, *leaves);
        });
}

void CStatisticsWriter::written(bool ok, const std::unordered_set<CCdsLeaf>& leaves) {
    _pending = false;
    if (!ok) {
        // Written again at the next chance.
        for (entry_t& e : _entries)
            e.written = ~*e.counter;
        return;
    }
    if (!_first)
        return;
    // The store keeps what it has; the leaves it lacks are not asked for again.
    _first = false;
    const size_t all = _entries.size();
    std::vector<entry_t> kept;
    for (entry_t& e : _entries) {
        const auto it = leaves.find(CCdsLeaf(e.path));
        if (it != leaves.end() && it->_status == API_STATUS_OK)
            kept.push_back(std::move(e));
    }
    _entries.swap(kept);
    LOG_INFO(SS_DEFAULT, 1, "Statistics: %zu of %zu leaves under '%s' are in the store",
             _entries.size(), all, root);
    if (_entries.empty())
        remove();
}
