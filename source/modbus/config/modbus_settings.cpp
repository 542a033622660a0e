#include "modbus/config/modbus_settings.h"
#include "util/log.h"

#include <algorithm>
#include <limits>

using toolkit::CElement;

namespace {

const char* const zero_fill_node = "/Software/Data Servers/Modbus/Zero Fill Default";
const char* const port_node =
    "/Software/System Settings/Network/Firewall Settings/Protocol/Modbus/Port/Value";
const char* const tcp_node = "/Software/Data Servers/Modbus/Interface Type/TCP";
const char* const serial_node = "/Software/Data Servers/Modbus/Interface Type/Serial";

tk_string unit_node(const tk_string& idstr) {
    return tk_string(tcp_node) + "/Mappings/" + idstr;
}

tk_string interface_node(const tk_string& idstr) {
    return tk_string(serial_node) + "/Interface/" + idstr;
}

// A setting's value: the node's "/Value" leaf, unless the path already names it.
boost::optional<CElement> read_setting(CCdsHandle& cds, const tk_string& node) {
    static const tk_string leaf = "/Value";
    const bool is_leaf = node.size() >= leaf.size() &&
                         node.compare(node.size() - leaf.size(), leaf.size(), leaf) == 0;
    return cds.get(is_leaf ? node : node + leaf);
}

// Numbers that fit 32 bits unsigned; negative or fractional-overflowing ones do not.
bool to_u32(const CElement& el, uint64_t& out) {
    CElement u;
    if (!CElement::convert(el, CElement::TYPE_UINT, u))
        return false;
    out = u.to_uint();
    return out <= std::numeric_limits<uint32_t>::max();
}

// A global number: kept at its default unless the leaf exists and holds a fitting number.
uint32_t read_number(CCdsHandle& cds, const tk_string& node, uint32_t def) {
    const auto el = read_setting(cds, node);
    uint64_t v = 0;
    if (el && el->is_numeric() && to_u32(*el, v))
        return static_cast<uint32_t>(v);
    return def;
}

// Children in name order, so that units and interfaces come in a stable order.
std::vector<tk_string> children(CCdsHandle& cds, const tk_string& node) {
    const auto names = cds.list_nodes(node);
    std::vector<tk_string> out(names.begin(), names.end());
    std::sort(out.begin(), out.end());
    return out;
}

// The index of text among names, or def when it is none of them.
unsigned pick(const boost::optional<CElement>& el, std::initializer_list<const char*> names,
              unsigned def) {
    if (!el)
        return def;
    const tk_string text = el->str();
    unsigned i = 0;
    for (const char* name : names) {
        if (text == name)
            return i;
        ++i;
    }
    return def;
}

// "/EDS Paths" of a unit or slave node; false (after the error line) when there are none.
bool read_eds_paths(CCdsHandle& cds, const tk_string& node, const tk_string& who,
                    std::vector<tk_string>& paths) {
    const auto el = read_setting(cds, node + "/EDS Paths");
    if (!el) {
        LOG_ERR(SS_SETTINGS, 1, "Can't fetch EDS paths for %s", who.c_str());
        return false;
    }
    paths.clear();
    CElement::split_string(paths, el->str(), ';');
    if (paths.empty()) {
        LOG_ERR(SS_SETTINGS, 1, "No EDS paths for %s", who.c_str());
        return false;
    }
    return true;
}

// "/Device Path" of a unit or slave node; false (after the error line) when absent or empty.
bool read_device_path(CCdsHandle& cds, const tk_string& node, const tk_string& who,
                      tk_string& path) {
    const auto el = read_setting(cds, node + "/Device Path");
    if (!el) {
        LOG_ERR(SS_SETTINGS, 1, "Can't fetch device path for %s", who.c_str());
        return false;
    }
    path = el->str();
    if (path.empty()) {
        LOG_ERR(SS_SETTINGS, 1, "Empty device path for %s", who.c_str());
        return false;
    }
    return true;
}

bool read_zero_fill(CCdsHandle& cds) {
    const auto el = read_setting(cds, zero_fill_node);
    const bool zero_fill = el && el->to_bool();
    LOG_DEBUG(SS_SETTINGS, 3, "Zero fill default: %u", zero_fill ? 1u : 0u);
    return zero_fill;
}

} // namespace

CModbusSettings::CModbusSettings(CCdsHandle& cds)
    : _zero_fill(read_zero_fill(cds)), _tcp(cds), _serial(cds) {}

CModbusTcpSettings::CModbusTcpSettings(CCdsHandle& cds) {
    LOG_STACK();
    _port = read_number(cds, port_node, _port);
    LOG_DEBUG(SS_SETTINGS, 3, "TCP listening port: %u", _port);
    _timeout = read_number(cds, tk_string(tcp_node) + "/Timeout/Value", _timeout);
    LOG_DEBUG(SS_SETTINGS, 3, "TCP timeout: %u", _timeout);
    for (const tk_string& idstr : children(cds, tk_string(tcp_node) + "/Mappings")) {
        CModbusTcpUnitSettings unit(cds, idstr);
        if (unit.valid())
            _units.push_back(std::move(unit));
    }
}

CModbusTcpUnitSettings::CModbusTcpUnitSettings(CCdsHandle& cds, const tk_string& idstr) {
    LOG_STACK();
    _valid = read(cds, idstr);
}

bool CModbusTcpUnitSettings::read(CCdsHandle& cds, const tk_string& idstr) {
    if (idstr.empty()) {
        LOG_ERR(SS_SETTINGS, 1, "Empty ID string");
        return false;
    }
    const tk_string node = unit_node(idstr);
    const auto id = read_setting(cds, node + "/Slave ID");
    if (!id) {
        LOG_ERR(SS_SETTINGS, 1, "Can't fetch UnitID for %s", idstr.c_str());
        return false;
    }
    uint64_t v = 0;
    if (!to_u32(*id, v)) {
        LOG_ERR(SS_SETTINGS, 1, "Invalid Unit ID: '%s'", id->str().c_str());
        return false;
    }
    if (v > 255) {
        LOG_ERR(SS_SETTINGS, 1, "Invalid Unit ID: %u", static_cast<unsigned>(v));
        return false;
    }
    _unit_id = static_cast<unit_id_t>(v);
    LOG_DEBUG(SS_SETTINGS, 3, "TCP %s: Unit ID: %u", idstr.c_str(), static_cast<unsigned>(v));
    if (!read_device_path(cds, node, idstr, _device_path))
        return false;
    LOG_DEBUG(SS_SETTINGS, 3, "TCP %s: device path: '%s'", idstr.c_str(), _device_path.c_str());
    if (!read_eds_paths(cds, node, idstr, _eds_paths))
        return false;
    for (const tk_string& path : _eds_paths)
        LOG_DEBUG(SS_SETTINGS, 3, "TCP %s: EDS: '%s'", idstr.c_str(), path.c_str());
    return true;
}

CModbusSerialSettings::CModbusSerialSettings(CCdsHandle& cds) {
    LOG_STACK();
    _timeout = read_number(cds, tk_string(serial_node) + "/Timeout/Value", _timeout);
    LOG_DEBUG(SS_SETTINGS, 3, "Serial timeout: %u", _timeout);
    unsigned int number = 0;
    for (const tk_string& idstr : children(cds, tk_string(serial_node) + "/Interface")) {
        CModbusSerialInterfaceSettings iface(cds, idstr, number);
        if (iface.valid()) {
            _interfaces.push_back(std::move(iface));
            ++number;
        }
    }
}

CModbusSerialInterfaceSettings::CModbusSerialInterfaceSettings(CCdsHandle& cds,
                                                               const tk_string& idstr,
                                                               unsigned int number)
    : _number(number) {
    LOG_STACK();
    const tk_string node = interface_node(idstr);
    const auto port = read_setting(cds, node + "/Serial Port");
    if (!port) {
        LOG_ERR(SS_SETTINGS, 1, "Can't fetch serial port for interface %s", idstr.c_str());
        return;
    }
    _serial_port = port->str();
    LOG_DEBUG(SS_SETTINGS, 3, "Serial interface number %s: serial device name: '%s'", idstr.c_str(),
              _serial_port.c_str());

    _baud_rate = read_number(cds, node + "/Baud Rate", _baud_rate);
    _flow_control = pick(read_setting(cds, node + "/Flow Control"),
                         {"None", "Software", "Hardware"}, _flow_control);
    if (const auto size = read_setting(cds, node + "/Char Size")) {
        const uint64_t bits = size->to_uint();
        _char_size = bits >= 5 && bits <= 8 ? static_cast<unsigned>(bits) : 8;
    }
    _parity = pick(read_setting(cds, node + "/Parity"), {"None", "Odd", "Even"}, PARITY_NONE);
    _stop_bits = pick(read_setting(cds, node + "/Stop Bits"), {"1", "1.5", "2"}, STOP_ONE);
    LOG_DEBUG(SS_SETTINGS, 3, "Serial %s: Baud Rate: %u", idstr.c_str(), _baud_rate);
    LOG_DEBUG(SS_SETTINGS, 3, "Serial %s: Flow Control: %u", idstr.c_str(), _flow_control);
    LOG_DEBUG(SS_SETTINGS, 3, "Serial %s: Char Size: %u", idstr.c_str(), _char_size);
    LOG_DEBUG(SS_SETTINGS, 3, "Serial %s: Parity : %u", idstr.c_str(), _parity);
    LOG_DEBUG(SS_SETTINGS, 3, "Serial %s: Stop Bits: %u", idstr.c_str(), _stop_bits);

    for (const tk_string& subnode : children(cds, node + "/Mappings")) {
        LOG_DEBUG(SS_SETTINGS, 3, "idstr: %s,  subnode: %s", idstr.c_str(), subnode.c_str());
        CModbusSerialSlaveSettings slave(cds, idstr, subnode);
        if (slave.valid())
            _slaves.push_back(std::move(slave));
    }
    _valid = true;
}

CModbusSerialSlaveSettings::CModbusSerialSlaveSettings(CCdsHandle& cds, const tk_string& iface_id,
                                                       const tk_string& subnode) {
    LOG_STACK();
    _valid = read(cds, iface_id, subnode);
}

bool CModbusSerialSlaveSettings::read(CCdsHandle& cds, const tk_string& iface_id,
                                      const tk_string& subnode) {
    LOG_DEBUG(SS_SETTINGS, 3, "iface_id: %s, path: %s", iface_id.c_str(), subnode.c_str());
    const tk_string node = interface_node(iface_id) + "/Mappings/" + subnode;
    const auto addr = read_setting(cds, node + "/Slave ID");
    if (!addr) {
        LOG_ERR(SS_SETTINGS, 1, "Can't fetch slave address for %s", subnode.c_str());
        return false;
    }
    uint64_t v = 0;
    if (!to_u32(*addr, v)) {
        LOG_ERR(SS_SETTINGS, 1, "Invalid slave address: '%s'", addr->str().c_str());
        return false;
    }
    if (v < 1 || v > 247) {
        LOG_ERR(SS_SETTINGS, 1, "Invalid slave address: %u", static_cast<unsigned>(v));
        return false;
    }
    _slave_address = static_cast<slave_addr_t>(v);
    LOG_DEBUG(SS_SETTINGS, 3, "Serial %s:%s: slave address: %u", iface_id.c_str(), subnode.c_str(),
              static_cast<unsigned>(v));
    if (!read_device_path(cds, node, subnode, _device_path))
        return false;
    LOG_DEBUG(SS_SETTINGS, 3, "Serial %s:%s: device path: %s", iface_id.c_str(), subnode.c_str(),
              _device_path.c_str());
    if (!read_eds_paths(cds, node, subnode, _eds_paths))
        return false;
    for (const tk_string& path : _eds_paths)
        LOG_DEBUG(SS_SETTINGS, 3, "Serial %s:%s: EDS: '%s'", iface_id.c_str(), subnode.c_str(),
                  path.c_str());
    return true;
}
