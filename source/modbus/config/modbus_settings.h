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
#include "io/tcp/tcp_listener_options.h"
#include "modbus/config/modbus_roles.h"
#include "modbus/modbus_types.h"

#include <cstdint>
#include <vector>

// One TCP unit: a node under ".../Interface Type/TCP/Mappings".
class CModbusTcpUnitSettings {
public:
    // idstr: the unit node's name. Check valid() before using the other fields.
    CModbusTcpUnitSettings(CCdsHandle& cds, const tk_string& idstr);

    unit_id_t unit_id() const { return _unit_id; }
    const tk_string& device_path() const { return _device_path; }
    const std::vector<tk_string>& eds_paths() const { return _eds_paths; }
    bool valid() const { return _valid; }

private:
    bool read(CCdsHandle& cds, const tk_string& idstr);

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
class CModbusTcpSettings {
public:
    explicit CModbusTcpSettings(CCdsHandle& cds);

    uint32_t port() const { return _port; }
    const std::vector<CModbusTcpUnitSettings>& units() const { return _units; }
    uint32_t timeout() const { return _timeout; }
    const CTcpListenerOptions& listener() const { return _listener; }
    const CModbusTcpSecuritySettings& security() const { return _security; }

private:
    void read_listener(CCdsHandle& cds);

    uint32_t _port = 502;
    std::vector<CModbusTcpUnitSettings> _units;
    uint32_t _timeout = 1000;
    CTcpListenerOptions _listener;
    CModbusTcpSecuritySettings _security;
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
// matched exactly ("Odd", not "odd"); baud rates run from 50 to 4000000.
class CModbusSerialInterfaceSettings {
public:
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
    const std::vector<CModbusSerialSlaveSettings>& slaves() const { return _slaves; }
    bool valid() const { return _valid; }

private:
    unsigned int _number;
    tk_string _name;
    tk_string _serial_port;
    uint32_t _baud_rate = 9600;
    unsigned _flow_control = FLOW_NONE;
    unsigned _char_size = 8;
    unsigned _parity = PARITY_NONE;
    unsigned _stop_bits = STOP_ONE;
    std::vector<CModbusSerialSlaveSettings> _slaves;
    bool _valid = false;
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
    const CModbusTcpSettings& tcp() const { return _tcp; }
    const CModbusSerialSettings& serial() const { return _serial; }

private:
    bool _zero_fill;
    bool _block_writes;
    bool _strict_mapping_files;
    uint32_t _checkpoint_pages = 1000;
    CModbusTcpSettings _tcp;
    CModbusSerialSettings _serial;
};
