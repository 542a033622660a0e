#pragma once
// The server's settings as the data store holds them, read once at start.
//
// Every setting is a store node whose value is its "/Value" leaf. A global or line value that
// is missing, of the wrong type or out of range keeps its default, and a warning names the
// leaf, the value found and the value used (a missing optional line setting is only
// narration). A unit, interface or slave that cannot be read completely is an error and left
// out of its list, so the lists hold only valid entries; no valid unit at all is a warning.
// Nothing here throws for bad store contents. All lines go to the "settings" subsystem:
// warnings and errors at level 0, so that a user sees them by default, narration at 2 and 3.
//
// Plain values, copyable and movable. The handle is not const because reading through it
// is not; the objects keep no reference to it.
#include "cds/cds_handle.h"
#include "io/serial/rs485.h"
#include "io/tcp/tcp_listener_options.h"
#include "modbus/config/gateway_settings.h"
#include "modbus/config/modbus_roles.h"
#include "modbus/modbus_types.h"

#include <cstdint>
#include <vector>

// One TCP unit: a node under ".../Interface Type/TCP/Mappings" (or the Mappings of another
// interface type whose units are addressed the same way, such as "RTU over TCP").
class CModbusTcpUnitSettings {
public:
    // idstr: the unit node's name. Check valid() before using the other fields.
    CModbusTcpUnitSettings(CCdsHandle& cds, const tk_string& idstr,
                           const tk_string& interface_type = "TCP");

    unit_id_t unit_id() const { return _unit_id; }
    const tk_string& device_path() const { return _device_path; }
    const std::vector<tk_string>& eds_paths() const { return _eds_paths; }
    bool valid() const { return _valid; }

private:
    bool read(CCdsHandle& cds, const tk_string& idstr, const tk_string& interface_type);

    unit_id_t _unit_id = 0;
    tk_string _device_path;
    std::vector<tk_string> _eds_paths;
    bool _valid = false;
};

// The secure (TLS) listener: ".../Interface Type/TCP/Security". Off (port 0) unless a port is
// set, and then only with the certificate, key and CA bundle paths all present; whether the
// files are usable is found out when the listener is made. The plain port stays open while
// no secure one is set, and closes by default once one is. Roles: ".../Security/Roles/<role>/"
// with "Function Codes" ("1-6,15,16") and optional "Unit IDs"; a role whose lists cannot be
// read is kept with no rights, so that a typing error never widens access.
class CModbusTcpSecuritySettings {
public:
    explicit CModbusTcpSecuritySettings(CCdsHandle& cds);

    // 0: no secure listener.
    uint32_t port() const { return _port; }
    const tk_string& certificate() const { return _certificate; }
    const tk_string& private_key() const { return _private_key; }
    const tk_string& ca_bundle() const { return _ca_bundle; }
    bool plain_port_open() const { return _plain_port_open; }
    // Seconds a client has for its handshake, 1 to 600; 10 by default.
    uint32_t handshake_timeout() const { return _handshake_timeout_s; }
    // The TLS 1.2 cipher suites as an OpenSSL cipher list; empty for the built-in list.
    const tk_string& tls12_ciphers() const { return _tls12_ciphers; }
    const CModbusRoles& roles() const { return _roles; }

private:
    void read_roles(CCdsHandle& cds);

    uint32_t _port = 0;
    tk_string _certificate;
    tk_string _private_key;
    tk_string _ca_bundle;
    bool _plain_port_open = true;
    uint32_t _handshake_timeout_s = 10;
    tk_string _tls12_ciphers;
    CModbusRoles _roles;
};

// Port 502 (1 to 65535) and time-out 1000 ms (0, no limit, to an hour) unless the store says
// otherwise; units in the order of their node names. Who may connect: every address, 64
// connections (1 to 65535), no idle time-out (0 to a day, in seconds) and everyone allowed
// unless the store says otherwise; these are optional, so a missing one is narration.
//
// The other network framings are off (port 0) unless their port is set, and then take the
// same bind address, allow list, connection limits and time-outs. RTU over TCP (".../RTU over
// TCP/Port") has units of its own, under its "Mappings", read only when its port is set.
// Modbus/UDP (".../UDP/Port") serves the TCP units, at most "Rate Limit" requests a second
// from one address (1000 by default; 0: no limit).
class CModbusTcpSettings {
public:
    explicit CModbusTcpSettings(CCdsHandle& cds);

    uint32_t port() const { return _port; }
    const std::vector<CModbusTcpUnitSettings>& units() const { return _units; }
    uint32_t timeout() const { return _timeout; }
    const CTcpListenerOptions& listener() const { return _listener; }
    const CModbusTcpSecuritySettings& security() const { return _security; }
    // 0: no RTU over TCP listener.
    uint32_t rtu_over_tcp_port() const { return _rtu_over_tcp_port; }
    const std::vector<CModbusTcpUnitSettings>& rtu_over_tcp_units() const {
        return _rtu_over_tcp_units;
    }
    // 0: no UDP port.
    uint32_t udp_port() const { return _udp_port; }
    uint32_t udp_rate_limit() const { return _udp_rate_limit; }

private:
    void read_listener(CCdsHandle& cds);
    void read_other_framings(CCdsHandle& cds);

    uint32_t _port = 502;
    std::vector<CModbusTcpUnitSettings> _units;
    uint32_t _timeout = 1000;
    CTcpListenerOptions _listener;
    CModbusTcpSecuritySettings _security;
    uint32_t _rtu_over_tcp_port = 0;
    std::vector<CModbusTcpUnitSettings> _rtu_over_tcp_units;
    uint32_t _udp_port = 0;
    uint32_t _udp_rate_limit = 1000;
};

// One slave on a serial interface: a node under the interface node's "/Mappings".
class CModbusSerialSlaveSettings {
public:
    // iface_id: the interface node's name; subnode: the slave node's name.
    CModbusSerialSlaveSettings(CCdsHandle& cds, const tk_string& iface_id,
                               const tk_string& subnode);

    // 1 to 247 when valid.
    slave_addr_t slave_address() const { return _slave_address; }
    const tk_string& device_path() const { return _device_path; }
    const std::vector<tk_string>& eds_paths() const { return _eds_paths; }
    bool valid() const { return _valid; }

private:
    bool read(CCdsHandle& cds, const tk_string& iface_id, const tk_string& subnode);

    slave_addr_t _slave_address = 0;
    tk_string _device_path;
    std::vector<tk_string> _eds_paths;
    bool _valid = false;
};

// One serial line: a node under ".../Interface Type/Serial/Interface". Valid when its serial
// port is known; the line settings fall back to 9600 8N1 without flow control. Names are
// matched exactly ("Odd", not "odd"); baud rates run from 50 to 4000000. "Protocol" is RTU
// unless it says ASCII; an ASCII line abandons a frame after an "Inter-Character Timeout"
// (ms, 1 to 60000) of 1000, and needs 7 or 8 data bits.
//
// "Role" is Slave (the server answers for the slaves under "Mappings") unless it says
// Gateway: the server is then the master of the line, and forwards requests to the slaves
// its "Downstream" list names (such as "1-10,20"; 1 to 247). A gateway line without a usable
// Downstream list is an error and left out; its Mappings are not served. RS-485 ("RS485",
// with "RTS On Send", "RTS After Send", "RTS Delay Before" and "RTS Delay After"), "Local
// Echo" and a slave's "Response Delay" are off (0) unless set.
class CModbusSerialInterfaceSettings {
public:
    enum role_t : unsigned { ROLE_SLAVE = 0, ROLE_GATEWAY = 1 };
    enum protocol_t : unsigned { PROTOCOL_RTU = 0, PROTOCOL_ASCII = 1 };
    enum flow_control_t : unsigned { FLOW_NONE = 0, FLOW_SOFTWARE = 1, FLOW_HARDWARE = 2 };
    enum parity_t : unsigned { PARITY_NONE = 0, PARITY_ODD = 1, PARITY_EVEN = 2 };
    enum stop_bits_t : unsigned { STOP_ONE = 0, STOP_ONE_AND_HALF = 1, STOP_TWO = 2 };

    // number: the interface's number among the valid ones, given by the caller.
    CModbusSerialInterfaceSettings(CCdsHandle& cds, const tk_string& idstr, unsigned int number);

    unsigned int number() const { return _number; }
    // The interface's node name.
    const tk_string& name() const { return _name; }
    const tk_string& serial_port() const { return _serial_port; }
    uint32_t baud_rate() const { return _baud_rate; }
    unsigned flow_control() const { return _flow_control; }
    // 5 to 8.
    unsigned char_size() const { return _char_size; }
    unsigned parity() const { return _parity; }
    unsigned stop_bits() const { return _stop_bits; }
    protocol_t protocol() const { return _protocol; }
    uint32_t char_timeout_ms() const { return _char_timeout_ms; }
    const std::vector<CModbusSerialSlaveSettings>& slaves() const { return _slaves; }
    bool valid() const { return _valid; }
    role_t role() const { return _role; }
    const CGatewaySettings& gateway() const { return _gateway; }
    const CRs485::settings_t& rs485() const { return _rs485; }
    // Two-wire adapters that hear what they send: the echo is dropped.
    bool local_echo() const { return _local_echo; }
    // How long a slave waits before it answers, ms (0 to 10000).
    uint32_t response_delay_ms() const { return _response_delay_ms; }

private:
    // Role, the gateway's settings and the line's driver settings; false when the interface
    // must be left out.
    bool read_role(CCdsHandle& cds, const tk_string& node, const tk_string& idstr);

    unsigned int _number;
    tk_string _name;
    tk_string _serial_port;
    uint32_t _baud_rate = 9600;
    unsigned _flow_control = FLOW_NONE;
    unsigned _char_size = 8;
    unsigned _parity = PARITY_NONE;
    unsigned _stop_bits = STOP_ONE;
    protocol_t _protocol = PROTOCOL_RTU;
    uint32_t _char_timeout_ms = 1000;
    std::vector<CModbusSerialSlaveSettings> _slaves;
    bool _valid = false;
    role_t _role = ROLE_SLAVE;
    CGatewaySettings _gateway;
    CRs485::settings_t _rs485;
    bool _local_echo = false;
    uint32_t _response_delay_ms = 0;
};

// Interfaces numbered 0, 1, 2, ... in the order of their node names; invalid ones take no
// number. Slaves, too, come in name order. The time-out, 1 ms to an hour, is 1000 by default:
// 0 would leave a line waiting for good on a stuck request.
class CModbusSerialSettings {
public:
    explicit CModbusSerialSettings(CCdsHandle& cds);

    const std::vector<CModbusSerialInterfaceSettings>& interfaces() const { return _interfaces; }
    uint32_t timeout() const { return _timeout; }

private:
    std::vector<CModbusSerialInterfaceSettings> _interfaces;
    uint32_t _timeout = 1000;
};

class CModbusSettings {
public:
    explicit CModbusSettings(CCdsHandle& cds);

    // Whether unmapped or unreadable addresses read as 0; false by default.
    bool zero_fill() const { return _zero_fill; }
    // Function 16 (and 23's write) may span several parameters, all written or none.
    bool block_writes() const { return _block_writes; }
    // Likely mistakes in mapping files are errors rather than warnings; false by default.
    bool strict_mapping_files() const { return _strict_mapping_files; }
    // WAL pages past which the store is checkpointed at once rather than when idle (0: only
    // when idle).
    uint32_t checkpoint_pages() const { return _checkpoint_pages; }
    // SQLite's page cache per store connection, KiB (0: SQLite's default, 2 MiB).
    uint32_t store_cache_kib() const { return _store_cache_kib; }
    const CModbusTcpSettings& tcp() const { return _tcp; }
    const CModbusSerialSettings& serial() const { return _serial; }

private:
    bool _zero_fill;
    bool _block_writes;
    bool _strict_mapping_files;
    uint32_t _checkpoint_pages = 1000;
    // Enough for the b-tree's inner pages of stores far larger than a device's usual, since
    // the id cache serves the reads.
    uint32_t _store_cache_kib = 256;
    CModbusTcpSettings _tcp;
    CModbusSerialSettings _serial;
};
