#include "modbus/config/modbus_settings.h"
#include "util/log.h"

#include <boost/asio/ip/address.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <string>

using toolkit::CElement;

namespace {

const char* const zero_fill_node = "/Software/Data Servers/Modbus/Zero Fill Default";
const char* const block_writes_node = "/Software/Data Servers/Modbus/Block Writes";
const char* const strict_node = "/Software/Data Servers/Modbus/Strict Mapping Files";
const char* const checkpoint_node = "/Software/Data Servers/Modbus/Checkpoint Pages";
const char* const store_cache_node = "/Software/Data Servers/Modbus/Store Cache KiB";
const char* const port_node =
    "/Software/System Settings/Network/Firewall Settings/Protocol/Modbus/Port/Value";
const char* const tcp_node = "/Software/Data Servers/Modbus/Interface Type/TCP";
const char* const interface_type_node = "/Software/Data Servers/Modbus/Interface Type";
const char* const serial_node = "/Software/Data Servers/Modbus/Interface Type/Serial";

// The name the settings' diagnostics carry, whichever helper finds the problem.
const char* const log_name = "CModbusSettings";

// A response time-out above an hour is more likely a typing error than a wish.
const uint32_t likely_timeout_ms = 3600000;
const uint32_t max_baud_rate = 4000000;
// A connection silent for longer than a day is as good as never closed.
const uint32_t max_idle_s = 86400;
// A TLS handshake takes a round trip or two; a client that needs minutes is not one.
const uint32_t max_handshake_s = 600;

tk_string unit_node(const tk_string& interface_type, const tk_string& idstr) {
    return tk_string(interface_type_node) + "/" + interface_type + "/Mappings/" + idstr;
}

tk_string interface_node(const tk_string& idstr) {
    return tk_string(serial_node) + "/Interface/" + idstr;
}

// A setting's value leaf: the node's "/Value", unless the path already names it.
tk_string value_path(const tk_string& node) {
    static const tk_string leaf = "/Value";
    const bool is_leaf = node.size() >= leaf.size() &&
                         node.compare(node.size() - leaf.size(), leaf.size(), leaf) == 0;
    return is_leaf ? node : node + leaf;
}

boost::optional<CElement> read_setting(CCdsHandle& cds, const tk_string& node) {
    return cds.get(value_path(node));
}

// A value as a message shows it: texts quoted, so that "1" and 1 differ.
tk_string shown(const CElement& el) {
    return el.is_string() ? "\"" + el.str() + "\"" : el.str();
}

// How loudly a missing setting is reported: a value the device normally has is a warning; an
// optional one that is usually left out is narration.
enum class absent_t { warn, info };

// A setting fell back to its default: present but unusable is always a warning.
void fall_back(const tk_string& node, const boost::optional<CElement>& el, const char* expected,
               const tk_string& used, absent_t absent) {
    const tk_string path = value_path(node);
    if (el)
        MB_LOG_CALL(warn, SS_SETTINGS, 0, log_name, "'%s' is %s, not %s; using %s", path.c_str(),
                    shown(*el).c_str(), expected, used.c_str());
    else if (absent == absent_t::warn)
        MB_LOG_CALL(warn, SS_SETTINGS, 0, log_name, "'%s' is missing; using %s", path.c_str(),
                    used.c_str());
    else
        MB_LOG_CALL(info, SS_SETTINGS, 2, log_name, "'%s' is missing; using %s", path.c_str(),
                    used.c_str());
}

// A number within [min, max]: an integer, or a float, whose fraction is cut off as the store
// converts it (`cut` tells that it had one). Texts and bools are not numbers here, so that
// "abc" or true never becomes a port.
bool whole_number(const CElement& el, uint64_t min, uint64_t max, uint64_t& out,
                  bool* cut = nullptr) {
    switch (el.type()) {
    case CElement::TYPE_UINT:
        out = el.to_uint();
        break;
    case CElement::TYPE_INT:
        if (el.to_int() < 0)
            return false;
        out = static_cast<uint64_t>(el.to_int());
        break;
    case CElement::TYPE_FLOAT: {
        const double d = el.to_float();
        // 2^64: every double below it converts without overflow.
        if (!(d >= 0 && d < 18446744073709551616.0))
            return false;
        out = static_cast<uint64_t>(d);
        if (cut != nullptr)
            *cut = d != std::floor(d);
        break;
    }
    default:
        return false;
    }
    return out >= min && out <= max;
}

// A numeric setting within [min, max], or def after saying why. Above `likely` (and within
// max) the value is taken, with a warning that it looks like a mistake.
uint32_t read_number(CCdsHandle& cds, const tk_string& node, uint32_t def, uint32_t min,
                     uint32_t max, absent_t absent, uint32_t likely = UINT32_MAX) {
    const auto el = read_setting(cds, node);
    uint64_t v = 0;
    bool cut = false;
    if (el && whole_number(*el, min, max, v, &cut)) {
        if (cut)
            MB_LOG_CALL(warn, SS_SETTINGS, 0, log_name,
                        "'%s' is %s, which has a fraction; taken as %llu", value_path(node).c_str(),
                        shown(*el).c_str(), static_cast<unsigned long long>(v));
        if (v > likely)
            MB_LOG_CALL(warn, SS_SETTINGS, 0, log_name, "'%s' is %s, more than %u; taken as it is",
                        value_path(node).c_str(), shown(*el).c_str(), likely);
        return static_cast<uint32_t>(v);
    }
    const tk_string expected = "a whole number from " + std::to_string(min) +
                               (max == UINT32_MAX ? " up" : " to " + std::to_string(max));
    fall_back(node, el, expected.c_str(), std::to_string(def), absent);
    return def;
}

// Children in name order, so that units and interfaces come in a stable order.
std::vector<tk_string> children(CCdsHandle& cds, const tk_string& node) {
    const auto names = cds.list_nodes(node);
    std::vector<tk_string> out(names.begin(), names.end());
    std::sort(out.begin(), out.end());
    return out;
}

// The index of the setting's text among names (exact spelling), or def after saying why.
unsigned pick(CCdsHandle& cds, const tk_string& node, std::initializer_list<const char*> names,
              unsigned def) {
    const auto el = read_setting(cds, node);
    tk_string expected = "one of";
    unsigned i = 0;
    for (const char* name : names) {
        if (el && el->str() == name)
            return i;
        expected += (i == 0 ? " " : ", ") + tk_string(name);
        ++i;
    }
    fall_back(node, el, expected.c_str(), names.begin()[def], absent_t::info);
    return def;
}

// A unit, slave or interface that cannot be served is an error: it is left out.
bool leave_out(const tk_string& who, const tk_string& node, const char* problem) {
    MB_LOG_CALL(err, SS_SETTINGS, 0, log_name, "%s left out: '%s' %s", who.c_str(),
                value_path(node).c_str(), problem);
    return false;
}

bool leave_out(const tk_string& who, const tk_string& node, const CElement& el,
               const char* expected) {
    const tk_string problem = "is " + shown(el) + ", not " + expected;
    return leave_out(who, node, problem.c_str());
}

// "/EDS Paths" of a unit or slave node; false (after the error line) when there are none.
bool read_eds_paths(CCdsHandle& cds, const tk_string& node, const tk_string& who,
                    std::vector<tk_string>& paths) {
    const tk_string leaf = node + "/EDS Paths";
    const auto el = read_setting(cds, leaf);
    if (!el)
        return leave_out(who, leaf, "is missing");
    paths.clear();
    CElement::split_string(paths, el->str(), ';');
    if (paths.empty())
        return leave_out(who, leaf, *el, "a ';'-separated list of mapping files");
    return true;
}

// "/Device Path" of a unit or slave node; false (after the error line) when absent or empty.
bool read_device_path(CCdsHandle& cds, const tk_string& node, const tk_string& who,
                      tk_string& path) {
    const tk_string leaf = node + "/Device Path";
    const auto el = read_setting(cds, leaf);
    if (!el)
        return leave_out(who, leaf, "is missing");
    path = el->str();
    if (path.empty())
        return leave_out(who, leaf, "is empty");
    // Store paths are absolute: a relative one names leaves nobody can have.
    if (path[0] != '/')
        MB_LOG_CALL(warn, SS_SETTINGS, 0, log_name,
                    "%s: '%s' is \"%s\", not an absolute store path (such as /Devices/Power); "
                    "its mappings name leaves that cannot exist",
                    who.c_str(), value_path(leaf).c_str(), path.c_str());
    return true;
}

// "/Slave ID" of a unit or slave node, within [min, max].
bool read_address(CCdsHandle& cds, const tk_string& node, const tk_string& who, uint64_t min,
                  uint64_t max, uint64_t& out) {
    const tk_string leaf = node + "/Slave ID";
    const auto el = read_setting(cds, leaf);
    if (!el)
        return leave_out(who, leaf, "is missing");
    // A number stored as text ("3") is the number, as the store converts it.
    char* end = nullptr;
    const tk_string text = el->is_string() ? el->str() : tk_string();
    const double d = std::strtod(text.c_str(), &end);
    const bool numeric_text = !text.empty() && *end == '\0' && d == d;
    const CElement number = numeric_text ? CElement::from_float(d) : *el;
    bool cut = false;
    if (whole_number(number, min, max, out, &cut) && (numeric_text || cut)) {
        MB_LOG_CALL(warn, SS_SETTINGS, 0, log_name, "'%s' is %s%s; taken as %llu",
                    value_path(leaf).c_str(), shown(*el).c_str(),
                    numeric_text ? ", a number stored as text" : ", which has a fraction",
                    static_cast<unsigned long long>(out));
        return true;
    }
    if (!whole_number(number, min, max, out)) {
        const tk_string expected =
            "a whole number from " + std::to_string(min) + " to " + std::to_string(max);
        return leave_out(who, leaf, *el, expected.c_str());
    }
    return true;
}

// Whether a text that the store reads as false says so ("false", "No", " off", "0", "0.0"),
// rather than being something else that is not true either.
bool says_false(const tk_string& text) {
    tk_string t;
    for (char c : text)
        if (c != ' ' && c != '\t')
            t += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (t == "false" || t == "no" || t == "off")
        return true;
    char* end = nullptr;
    const double d = std::strtod(t.c_str(), &end);
    return !t.empty() && *end == '\0' && d == 0.0;
}

// A switch as the store reads a bool (CElement::to_bool): a number is on unless 0; a text
// such as "true", "Yes", "on" or "1" is on, "false", "no", "off" or "0" off. A text that is
// none of these, or no value, is def, with a warning.
bool read_switch(CCdsHandle& cds, const tk_string& node, const char* label, bool def = false) {
    const auto el = read_setting(cds, node);
    bool on = def;
    if (!el) {
        fall_back(node, el, "true or false", def ? "true" : "false", absent_t::info);
    } else {
        on = el->to_bool();
        if (el->is_string() && !on && !says_false(el->str())) {
            on = def;
            fall_back(node, el, "true or false", def ? "true" : "false", absent_t::info);
        }
    }
    LOG_DEBUG(SS_SETTINGS, 3, "%s: %u", label, on ? 1u : 0u);
    return on;
}

} // namespace

CModbusSettings::CModbusSettings(CCdsHandle& cds)
    : _zero_fill(read_switch(cds, zero_fill_node, "Zero fill default")),
      _block_writes(read_switch(cds, block_writes_node, "Block writes")),
      _strict_mapping_files(read_switch(cds, strict_node, "Strict mapping files")), _tcp(cds),
      _serial(cds) {
    _checkpoint_pages =
        read_number(cds, checkpoint_node, _checkpoint_pages, 0, UINT32_MAX, absent_t::info);
    LOG_DEBUG(SS_SETTINGS, 3, "Checkpoint pages: %u", _checkpoint_pages);
    _store_cache_kib =
        read_number(cds, store_cache_node, _store_cache_kib, 0, 1u << 20, absent_t::info);
    LOG_DEBUG(SS_SETTINGS, 3, "Store cache: %u KiB", _store_cache_kib);
    bool any = !_tcp.units().empty() || !_tcp.rtu_over_tcp_units().empty();
    // A gateway line's slaves answer too: a device may be a gateway only, and its RTU over TCP
    // port may serve them without units of its own.
    bool gateway = false;
    for (const CModbusSerialInterfaceSettings& iface : _serial.interfaces()) {
        any = any || !iface.slaves().empty();
        gateway = gateway || iface.role() == CModbusSerialInterfaceSettings::ROLE_GATEWAY;
    }
    any = any || gateway;
    if (_tcp.rtu_over_tcp_port() != 0 && _tcp.rtu_over_tcp_units().empty() && !gateway)
        MB_LOG_CALL(warn, SS_SETTINGS, 0, log_name,
                    "RTU over TCP port %u is set, but no valid unit is under '%s/RTU over "
                    "TCP/Mappings'; every request will be refused",
                    _tcp.rtu_over_tcp_port(), interface_type_node);
    if (!any)
        LOG_WARN(SS_SETTINGS, 0,
                 "No units configured: no valid unit under '%s/Mappings' nor slave or gateway "
                 "line under '%s/Interface'; nothing will answer",
                 tcp_node, serial_node);
}

CModbusTcpSettings::CModbusTcpSettings(CCdsHandle& cds) : _security(cds) {
    LOG_STACK();
    _port = read_number(cds, port_node, _port, 1, 0xFFFF, absent_t::warn);
    LOG_DEBUG(SS_SETTINGS, 3, "TCP listening port: %u", _port);
    // 0 is legal: requests then wait for the store without limit.
    _timeout = read_number(cds, tk_string(tcp_node) + "/Timeout", _timeout, 0, UINT32_MAX,
                           absent_t::warn, likely_timeout_ms);
    LOG_DEBUG(SS_SETTINGS, 3, "TCP timeout: %u", _timeout);
    read_listener(cds);
    for (const tk_string& idstr : children(cds, tk_string(tcp_node) + "/Mappings")) {
        CModbusTcpUnitSettings unit(cds, idstr);
        if (unit.valid())
            _units.push_back(std::move(unit));
    }
    read_other_framings(cds);
}

void CModbusTcpSettings::read_other_framings(CCdsHandle& cds) {
    const tk_string rtu = tk_string(interface_type_node) + "/RTU over TCP";
    _rtu_over_tcp_port = read_number(cds, rtu + "/Port", 0, 0, 0xFFFF, absent_t::info);
    LOG_DEBUG(SS_SETTINGS, 3, "RTU over TCP port: %u", _rtu_over_tcp_port);
    // Without a port its units serve nothing: their mapping files are not even read.
    if (_rtu_over_tcp_port != 0) {
        for (const tk_string& idstr : children(cds, rtu + "/Mappings")) {
            CModbusTcpUnitSettings unit(cds, idstr, "RTU over TCP");
            if (unit.valid())
                _rtu_over_tcp_units.push_back(std::move(unit));
        }
    }
    const tk_string udp = tk_string(interface_type_node) + "/UDP";
    _udp_port = read_number(cds, udp + "/Port", 0, 0, 0xFFFF, absent_t::info);
    _udp_rate_limit =
        read_number(cds, udp + "/Rate Limit", _udp_rate_limit, 0, 1000000, absent_t::info);
    LOG_DEBUG(SS_SETTINGS, 3, "UDP port: %u, rate limit %u a second", _udp_port, _udp_rate_limit);
}

void CModbusTcpSettings::read_listener(CCdsHandle& cds) {
    const tk_string tcp = tcp_node;
    const tk_string bind_node = tcp + "/Bind Address";
    const auto bind = read_setting(cds, bind_node);
    boost::system::error_code ec;
    // An empty text is a cleared setting: every address, as when it is missing.
    if (bind && bind->is_string() && !bind->str().empty())
        boost::asio::ip::make_address(bind->str(), ec);
    if (bind && bind->is_string() && !ec)
        _listener.bind_address = bind->str();
    else
        fall_back(bind_node, bind, "an IPv4 or IPv6 address", "every address", absent_t::info);
    LOG_DEBUG(SS_SETTINGS, 3, "TCP bind address: '%s'", _listener.bind_address.c_str());

    _listener.max_connections = read_number(cds, tcp + "/Max Connections",
                                            _listener.max_connections, 1, 0xFFFF, absent_t::info);
    LOG_DEBUG(SS_SETTINGS, 3, "TCP max connections: %u", _listener.max_connections);
    _listener.idle_timeout_s = read_number(cds, tcp + "/Idle Timeout", _listener.idle_timeout_s, 0,
                                           max_idle_s, absent_t::info);
    LOG_DEBUG(SS_SETTINGS, 3, "TCP idle timeout: %u s", _listener.idle_timeout_s);
    _listener.evict_after_s = read_number(cds, tcp + "/Evict After", _listener.evict_after_s, 0,
                                          max_idle_s, absent_t::info);
    LOG_DEBUG(SS_SETTINGS, 3, "TCP evict after: %u s", _listener.evict_after_s);

    // Whatever its type, the value is read as text: a list that was meant to restrict and
    // cannot be read must not let everyone in.
    const tk_string allow_node = tcp + "/Allow";
    const auto allow = read_setting(cds, allow_node);
    if (allow) {
        std::vector<std::string> bad;
        _listener.allow = CTcpAllowList::parse(allow->str(), bad);
        tk_string list;
        for (const std::string& entry : bad)
            list += (list.empty() ? "\"" : ", \"") + entry + "\"";
        if (!bad.empty())
            MB_LOG_CALL(warn, SS_SETTINGS, 0, log_name,
                        "'%s' has entries that are not networks (address/prefix): %s; they are "
                        "left out%s",
                        value_path(allow_node).c_str(), list.c_str(),
                        _listener.allow.nobody() ? ", and as no entry is left, every "
                                                   "client is refused"
                                                 : "");
    } else {
        fall_back(allow_node, allow, "", "everyone", absent_t::info);
    }
    LOG_DEBUG(SS_SETTINGS, 3, "TCP allowed clients: %s", _listener.allow.str().c_str());
}

CModbusTcpSecuritySettings::CModbusTcpSecuritySettings(CCdsHandle& cds) {
    LOG_STACK();
    const tk_string node = tk_string(tcp_node) + "/Security";
    _port = read_number(cds, node + "/Port", _port, 0, 0xFFFF, absent_t::info);
    struct file_t {
        const char* leaf;
        tk_string* path;
    };
    for (const file_t& file :
         {file_t{"/Certificate", &_certificate}, file_t{"/Private Key", &_private_key},
          file_t{"/CA Bundle", &_ca_bundle}}) {
        const auto el = read_setting(cds, node + file.leaf);
        if (el && el->is_string() && !el->str().empty())
            *file.path = el->str();
        else if (_port != 0 || el)
            fall_back(node + file.leaf, el, "a file path", "no secure port",
                      _port != 0 ? absent_t::warn : absent_t::info);
    }
    if (_certificate.empty() || _private_key.empty() || _ca_bundle.empty())
        _port = 0;
    _handshake_timeout_s = read_number(cds, node + "/Handshake Timeout", _handshake_timeout_s, 1,
                                       max_handshake_s, absent_t::info);
    const auto ciphers = read_setting(cds, node + "/TLS 1.2 Ciphers");
    if (ciphers && ciphers->is_string() && !ciphers->str().empty())
        _tls12_ciphers = ciphers->str();
    else
        fall_back(node + "/TLS 1.2 Ciphers", ciphers, "an OpenSSL cipher list", "the built-in list",
                  absent_t::info);
    LOG_DEBUG(SS_SETTINGS, 3, "TCP secure port: %u", _port);
    _plain_port_open =
        read_switch(cds, node + "/Plain Port Open", "TCP plain port open", _port == 0);
    if (!_plain_port_open && _port == 0)
        MB_LOG_CALL(warn, SS_SETTINGS, 0, log_name,
                    "'%s' is false and there is no secure port: nobody can reach the server over "
                    "TCP",
                    value_path(node + "/Plain Port Open").c_str());
    read_roles(cds);
}

void CModbusTcpSecuritySettings::read_roles(CCdsHandle& cds) {
    const tk_string node = tk_string(tcp_node) + "/Security";
    for (const tk_string& role : children(cds, node + "/Roles")) {
        const tk_string role_node = node + "/Roles/" + role;
        CModbusRoles::rule_t rule;
        const tk_string functions_node = role_node + "/Function Codes";
        const auto functions = read_setting(cds, functions_node);
        if (!functions || !CModbusRoles::parse_list(functions->str(), rule.functions)) {
            rule.functions.reset();
            fall_back(functions_node, functions, "a list such as \"1-6,15,16\"", "no function",
                      absent_t::warn);
        }
        const tk_string units_node = role_node + "/Unit IDs";
        const auto units = read_setting(cds, units_node);
        if (units && !CModbusRoles::parse_list(units->str(), rule.units)) {
            rule.units.reset();
            fall_back(units_node, units, "a list such as \"1,2\"", "no unit", absent_t::warn);
        }
        rule.any_unit = !units;
        _roles.add(role, rule);
        LOG_DEBUG(SS_SETTINGS, 3, "TCP role '%s': %zu function codes, %s", role.c_str(),
                  rule.functions.count(),
                  rule.any_unit ? "every unit"
                                : (std::to_string(rule.units.count()) + " units").c_str());
    }
    const tk_string default_node = node + "/Default Role";
    const auto def = read_setting(cds, default_node);
    if (def && def->is_string() && _roles.has(def->str()))
        _roles.set_default_role(def->str());
    else
        fall_back(default_node, def, "a role under Roles", "none (refuse everything)",
                  absent_t::info);
}

CModbusTcpUnitSettings::CModbusTcpUnitSettings(CCdsHandle& cds, const tk_string& idstr,
                                               const tk_string& interface_type) {
    LOG_STACK();
    _valid = read(cds, idstr, interface_type);
}

bool CModbusTcpUnitSettings::read(CCdsHandle& cds, const tk_string& idstr,
                                  const tk_string& interface_type) {
    const tk_string who = interface_type + " unit '" + idstr + "'";
    const tk_string node = unit_node(interface_type, idstr);
    const char* const type = interface_type.c_str();
    uint64_t v = 0;
    if (!read_address(cds, node, who, 0, 255, v))
        return false;
    _unit_id = static_cast<unit_id_t>(v);
    LOG_DEBUG(SS_SETTINGS, 3, "%s %s: Unit ID: %u", type, idstr.c_str(), static_cast<unsigned>(v));
    if (!read_device_path(cds, node, who, _device_path))
        return false;
    LOG_DEBUG(SS_SETTINGS, 3, "%s %s: device path: '%s'", type, idstr.c_str(),
              _device_path.c_str());
    if (!read_eds_paths(cds, node, who, _eds_paths))
        return false;
    for (const tk_string& path : _eds_paths)
        LOG_DEBUG(SS_SETTINGS, 3, "%s %s: EDS: '%s'", type, idstr.c_str(), path.c_str());
    return true;
}

CModbusSerialSettings::CModbusSerialSettings(CCdsHandle& cds) {
    LOG_STACK();
    unsigned int number = 0;
    for (const tk_string& idstr : children(cds, tk_string(serial_node) + "/Interface")) {
        CModbusSerialInterfaceSettings iface(cds, idstr, number);
        if (iface.valid()) {
            _interfaces.push_back(std::move(iface));
            ++number;
        }
    }
    // A time-out of 0 would leave a line with a request stuck for good; without interfaces
    // the value does not matter.
    _timeout =
        read_number(cds, tk_string(serial_node) + "/Timeout", _timeout, 1, UINT32_MAX,
                    _interfaces.empty() ? absent_t::info : absent_t::warn, likely_timeout_ms);
    LOG_DEBUG(SS_SETTINGS, 3, "Serial timeout: %u", _timeout);
}

CModbusSerialInterfaceSettings::CModbusSerialInterfaceSettings(CCdsHandle& cds,
                                                               const tk_string& idstr,
                                                               unsigned int number)
    : _number(number), _name(idstr) {
    LOG_STACK();
    const tk_string node = interface_node(idstr);
    const tk_string who = "Serial interface '" + idstr + "'";
    const auto port = read_setting(cds, node + "/Serial Port");
    if (!port) {
        leave_out(who, node + "/Serial Port", "is missing");
        return;
    }
    _serial_port = port->str();
    if (_serial_port.empty()) {
        leave_out(who, node + "/Serial Port", "is empty");
        return;
    }
    LOG_DEBUG(SS_SETTINGS, 3, "Serial interface number %s: serial device name: '%s'", idstr.c_str(),
              _serial_port.c_str());

    _baud_rate =
        read_number(cds, node + "/Baud Rate", _baud_rate, 50, max_baud_rate, absent_t::info);
    _flow_control = pick(cds, node + "/Flow Control", {"None", "Software", "Hardware"}, FLOW_NONE);
    _char_size = read_number(cds, node + "/Char Size", _char_size, 5, 8, absent_t::info);
    _parity = pick(cds, node + "/Parity", {"None", "Odd", "Even"}, PARITY_NONE);
    _stop_bits = pick(cds, node + "/Stop Bits", {"1", "1.5", "2"}, STOP_ONE);
    _protocol = static_cast<protocol_t>(pick(cds, node + "/Protocol", {"RTU", "ASCII"}, PROTOCOL_RTU));
    if (_protocol == PROTOCOL_ASCII) {
        _char_timeout_ms = read_number(cds, node + "/Inter-Character Timeout", _char_timeout_ms, 1,
                                       60000, absent_t::info);
        // ':' and the hex digits need seven bits.
        if (_char_size < 7) {
            MB_LOG_CALL(warn, SS_SETTINGS, 0, log_name,
                        "'%s' is %u, but an ASCII line needs 7 or 8 data bits; using 7",
                        value_path(node + "/Char Size").c_str(), _char_size);
            _char_size = 7;
        }
    }
    LOG_DEBUG(SS_SETTINGS, 3, "Serial %s: Protocol: %s, inter-character time-out %u ms",
              idstr.c_str(), _protocol == PROTOCOL_ASCII ? "ASCII" : "RTU", _char_timeout_ms);
    LOG_DEBUG(SS_SETTINGS, 3, "Serial %s: Baud Rate: %u", idstr.c_str(), _baud_rate);
    LOG_DEBUG(SS_SETTINGS, 3, "Serial %s: Flow Control: %u", idstr.c_str(), _flow_control);
    LOG_DEBUG(SS_SETTINGS, 3, "Serial %s: Char Size: %u", idstr.c_str(), _char_size);
    LOG_DEBUG(SS_SETTINGS, 3, "Serial %s: Parity : %u", idstr.c_str(), _parity);
    LOG_DEBUG(SS_SETTINGS, 3, "Serial %s: Stop Bits: %u", idstr.c_str(), _stop_bits);
    if (!read_role(cds, node, idstr))
        return;

    // A gateway line has no slaves of its own.
    for (const tk_string& subnode :
         _role == ROLE_GATEWAY ? std::vector<tk_string>() : children(cds, node + "/Mappings")) {
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
    const tk_string who = "Serial slave '" + subnode + "' of interface '" + iface_id + "'";
    uint64_t v = 0;
    if (!read_address(cds, node, who, 1, 247, v))
        return false;
    _slave_address = static_cast<slave_addr_t>(v);
    LOG_DEBUG(SS_SETTINGS, 3, "Serial %s:%s: slave address: %u", iface_id.c_str(), subnode.c_str(),
              static_cast<unsigned>(v));
    if (!read_device_path(cds, node, who, _device_path))
        return false;
    LOG_DEBUG(SS_SETTINGS, 3, "Serial %s:%s: device path: %s", iface_id.c_str(), subnode.c_str(),
              _device_path.c_str());
    if (!read_eds_paths(cds, node, who, _eds_paths))
        return false;
    for (const tk_string& path : _eds_paths)
        LOG_DEBUG(SS_SETTINGS, 3, "Serial %s:%s: EDS: '%s'", iface_id.c_str(), subnode.c_str(),
                  path.c_str());
    return true;
}

bool CModbusSerialInterfaceSettings::read_role(CCdsHandle& cds, const tk_string& node,
                                               const tk_string& idstr) {
    // A driver that holds RTS for longer than a second is not what anyone means.
    const uint32_t max_rts_delay_ms = 1000;
    const uint32_t max_response_delay_ms = 10000;
    _role = static_cast<role_t>(pick(cds, node + "/Role", {"Slave", "Gateway"}, ROLE_SLAVE));
    _rs485.enabled = read_switch(cds, node + "/RS485", "RS485");
    if (_rs485.enabled) {
        _rs485.rts_on_send = read_switch(cds, node + "/RTS On Send", "RTS on send", true);
        _rs485.rts_after_send = read_switch(cds, node + "/RTS After Send", "RTS after send");
        _rs485.delay_before_ms = read_number(cds, node + "/RTS Delay Before", 0, 0,
                                             max_rts_delay_ms, absent_t::info);
        _rs485.delay_after_ms =
            read_number(cds, node + "/RTS Delay After", 0, 0, max_rts_delay_ms, absent_t::info);
    }
    _local_echo = read_switch(cds, node + "/Local Echo", "Local echo");
    if (_role == ROLE_SLAVE) {
        _response_delay_ms = read_number(cds, node + "/Response Delay", 0, 0,
                                         max_response_delay_ms, absent_t::info);
        return true;
    }

    const tk_string who = "Gateway line '" + idstr + "'";
    const tk_string list_node = node + "/Downstream";
    const auto list = read_setting(cds, list_node);
    if (!list)
        return leave_out(who, list_node, "is missing: a gateway line needs the slave addresses "
                                         "behind it");
    CModbusRoles::set_t ids;
    if (!CModbusRoles::parse_list(list->str(), ids) || ids.test(0) || (ids >> 248).any())
        return leave_out(who, list_node, *list,
                         "a list of slave addresses from 1 to 247 such as \"1-10,20\"");
    _gateway.downstream = ids;
    CGatewaySettings& g = _gateway;
    g.response_timeout_ms = read_number(cds, node + "/Response Timeout", g.response_timeout_ms, 1,
                                        UINT32_MAX, absent_t::info, likely_timeout_ms);
    g.retries = read_number(cds, node + "/Retries", g.retries, 0, 10, absent_t::info);
    g.turnaround_delay_ms = read_number(cds, node + "/Turnaround Delay", g.turnaround_delay_ms, 0,
                                        60000, absent_t::info);
    g.dead_after = read_number(cds, node + "/Dead After", g.dead_after, 0, 1000, absent_t::info);
    g.retry_dead_s =
        read_number(cds, node + "/Retry Dead", g.retry_dead_s, 1, max_idle_s, absent_t::info);
    if (!children(cds, node + "/Mappings").empty())
        MB_LOG_CALL(warn, SS_SETTINGS, 0, log_name,
                    "%s: '%s/Mappings' is not served: a gateway line has no slaves of its own",
                    who.c_str(), node.c_str());
    LOG_DEBUG(SS_SETTINGS, 3,
              "%s: %zu slaves, response time-out %u ms, %u retries, turnaround %u ms, dead after "
              "%u, retried every %u s",
              who.c_str(), ids.count(), g.response_timeout_ms, g.retries, g.turnaround_delay_ms,
              g.dead_after, g.retry_dead_s);
    return true;
}
