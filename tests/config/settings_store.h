#pragma once
// A store holding only the settings a test defines, and the settings read from it.
#include "modbus/config/modbus_settings.h"
#include "support/subsystem_log.h"
#include "toolkit/store_fixture.h"

const tk_string modbus_node = "/Software/Data Servers/Modbus/";
const tk_string tcp_node = modbus_node + "Interface Type/TCP/";
const tk_string unit_nodes = tcp_node + "Mappings/";
const tk_string serial_timeout = modbus_node + "Interface Type/Serial/Timeout";
const tk_string interfaces = modbus_node + "Interface Type/Serial/Interface/";
const tk_string port_leaf =
    "/Software/System Settings/Network/Firewall Settings/Protocol/Modbus/Port/Value";

inline CModbusSettings read_settings() {
    CCdsHandle cds;
    return CModbusSettings(cds);
}

struct CSettingsStore {
    CTestStore store;

    // Something in the store, so that it opens as a configured device would.
    CSettingsStore() {
        store.define("/Other/Value", toolkit::CElement::TYPE_BOOL,
                     toolkit::CElement::from_bool(true));
    }
    // A setting node's value leaf.
    void put(const tk_string& node, const toolkit::CElement& value) {
        store.define(node + "/Value", value.type(), value);
    }
    void put(const tk_string& node, const char* text) {
        put(node, toolkit::CElement::from_string(text));
    }
    void put(const tk_string& node, uint64_t number) {
        put(node, toolkit::CElement::from_uint(number));
    }
    // A TCP unit, or a slave of a serial interface, under its node's name; nullptr leaves
    // a leaf out.
    void unit(const tk_string& name, const toolkit::CElement& id, const char* device = "/Dev",
              const char* eds = "a.eds") {
        mapping(unit_nodes + name, id, device, eds);
    }
    void slave(const tk_string& iface, const tk_string& name, const toolkit::CElement& address,
               const char* device = "/Dev", const char* eds = "a.eds") {
        mapping(interfaces + iface + "/Mappings/" + name, address, device, eds);
    }
    // The same with good leaves: the slave's interface on /dev/null.
    void unit(const tk_string& name, unsigned id, const tk_string& eds,
              const char* device = "/Dev") {
        unit(name, toolkit::CElement::from_uint(id), device, eds.c_str());
    }
    void slave(const tk_string& iface, const tk_string& name, unsigned address,
               const tk_string& eds, const char* device = "/Dev") {
        put(interfaces + iface + "/Serial Port", "/dev/null");
        slave(iface, name, toolkit::CElement::from_uint(address), device, eds.c_str());
    }
    // A mapping file in the store's folder.
    tk_string eds(const tk_string& name, const tk_string& text) {
        const tk_string path = store.dir().file(name);
        write_text(path, text);
        return path;
    }

private:
    void mapping(const tk_string& node, const toolkit::CElement& id, const char* device,
                 const char* eds) {
        put(node + "/Slave ID", id);
        if (device)
            put(node + "/Device Path", device);
        if (eds)
            put(node + "/EDS Paths", eds);
    }
};
