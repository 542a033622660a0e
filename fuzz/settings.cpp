// Fuzz target: the server's settings in the store. The input overrides a few settings leaves
// of the sample configuration with values of any type (a leaf that does not exist yet adds a
// unit, interface or slave); the settings are then read and the unit registry built from them
// as at the server's start. Bad values must be logged and skipped or make the registry fail
// with its error, never crash; every unit or slave the settings list must be in the registry.
#include "support/fuzz_input.h"
#include "support/fuzz_log.h"
#include "support/fuzz_store.h"

#include "cds/cds_handle.h"
#include "modbus/config/modbus_config.h"
#include "modbus/config/modbus_settings.h"
#include "util/error.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const tk_string modbus = "/Software/Data Servers/Modbus";
const tk_string tcp = modbus + "/Interface Type/TCP";
const tk_string serial = modbus + "/Interface Type/Serial";

// The settings a leaf of the input may override: global ones, then per unit, per interface
// and per slave, each under one of a few node names (the sample's and new ones).
std::vector<tk_string> setting_paths() {
    std::vector<tk_string> out = {
        "/Software/System Settings/Network/Firewall Settings/Protocol/Modbus/Port",
        tcp + "/Timeout", serial + "/Timeout", modbus + "/Zero Fill Default"};
    for (const char* unit : {"Unit1", "Unit2", "Unit9"})
        for (const char* key : {"Slave ID", "Device Path", "EDS Paths"})
            out.push_back(tcp + "/Mappings/" + unit + "/" + key);
    for (const char* iface : {"COM1", "COM2"}) {
        const tk_string node = serial + "/Interface/" + iface;
        for (const char* key :
             {"Serial Port", "Baud Rate", "Flow Control", "Char Size", "Parity", "Stop Bits"})
            out.push_back(node + "/" + key);
        for (const char* slave : {"Slave1", "Slave2", "Slave9"})
            for (const char* key : {"Slave ID", "Device Path", "EDS Paths"})
                out.push_back(node + "/Mappings/" + slave + "/" + key);
    }
    return out;
}

// Texts that mean something to some setting. Mapping file lists come only from here: a path
// made up by the fuzzer could name a device file that never ends.
std::vector<tk_string> known_texts() {
    const tk_string eds = tk_string(MB_SOURCE_DIR) + "/tests/data/eds/";
    return {"None",
            "Software",
            "Hardware",
            "Odd",
            "Even",
            "1",
            "1.5",
            "2",
            "8",
            "19200",
            "-1",
            "4294967296",
            "0x10",
            "",
            " ",
            "/dev/null",
            "/Devices/UPS",
            "/Devices/Meter",
            "/",
            eds + "ups.eds",
            eds + "meter.eds;" + eds + "ups_extra.eds",
            eds + "ups.eds;" + eds + "ups.eds",
            ";",
            eds + "missing.eds",
            eds + "ups.eds;;" + eds + "meter.eds"};
}

toolkit::CElement fuzz_value(CFuzzInput& in, bool eds_paths, toolkit::CElement::type_t& type) {
    static const std::vector<tk_string> texts = known_texts();
    using E = toolkit::CElement;
    type = static_cast<E::type_t>(1 + in.pick(6));
    if (eds_paths && type == E::TYPE_STRING)
        return E::from_string(texts[in.pick(texts.size())]);
    switch (type) {
    case E::TYPE_BOOL:
        return E::from_bool(in.u8() & 1);
    case E::TYPE_INT:
        return E::from_int(static_cast<int64_t>(in.u64()));
    case E::TYPE_UINT:
        return E::from_uint(in.u64());
    case E::TYPE_FLOAT: {
        const uint64_t bits = in.u64();
        double d;
        std::memcpy(&d, &bits, sizeof d);
        return E::from_float(d);
    }
    case E::TYPE_STRING:
        return E::from_string((in.u8() & 1) ? texts[in.pick(texts.size())] : in.text(40));
    default:
        return E::from_time({static_cast<time_t>(in.u32()), 0});
    }
}

void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "settings: %s\n", what);
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static CFuzzStore* env = [] {
        fuzz_quiet_logs();
        return new CFuzzStore;
    }();
    static CCdsHandle* cds = new CCdsHandle;
    static const std::vector<tk_string> paths = setting_paths();

    // Only the settings are redefined for each input; the devices' leaves stay as loaded.
    static const std::vector<toolkit::CLeafInfo> sample_settings = [] {
        if (env->store().define(CFuzzStore::sample_leaves()) != 0)
            fuzz_setup_failed(env->store().error());
        std::vector<toolkit::CLeafInfo> out;
        for (const toolkit::CLeafInfo& leaf : CFuzzStore::sample_leaves())
            if (leaf.path.compare(0, 10, "/Software/") == 0)
                out.push_back(leaf);
        return out;
    }();
    size_t removed = 0;
    env->store().remove("/Software", true, removed);
    std::vector<toolkit::CLeafInfo> leaves = sample_settings;
    CFuzzInput in(data, size);
    for (unsigned n = 0; n < 8 && !in.empty(); ++n) {
        toolkit::CLeafInfo leaf;
        leaf.path = paths[in.pick(paths.size())];
        const bool eds =
            leaf.path.size() > 9 && leaf.path.compare(leaf.path.size() - 9, 9, "EDS Paths") == 0;
        leaf.path += "/Value";
        leaf.value = fuzz_value(in, eds, leaf.type);
        leaves.push_back(leaf);
    }
    // The store keeps the last definition of a path. Values it cannot hold (a NaN) are
    // refused as a whole; those inputs test nothing and are left.
    if (env->store().define(leaves) != 0)
        return 0;

    const CModbusSettings settings(*cds);
    try {
        CModbusConfig config(settings);
        check(config.tcp_working_limit() <= config.tcp_timeout() &&
                  config.serial_working_limit() <= config.serial_timeout(),
              "a working limit beyond its time-out");
        for (const CModbusTcpUnitSettings& unit : settings.tcp().units()) {
            check(unit.valid(), "an invalid TCP unit is listed");
            check(config.tcp_config(unit.unit_id()) != nullptr,
                  "a TCP unit is not in the registry");
        }
        for (const CModbusSerialInterfaceSettings& iface : settings.serial().interfaces()) {
            check(iface.valid(), "an invalid interface is listed");
            check(iface.char_size() >= 5 && iface.char_size() <= 8, "char size out of 5..8");
            for (const CModbusSerialSlaveSettings& slave : iface.slaves()) {
                check(slave.slave_address() >= 1 && slave.slave_address() <= 247,
                      "a slave address out of 1..247 is listed");
                check(config.serial_config(iface.number(), slave.slave_address()) != nullptr,
                      "a serial slave is not in the registry");
            }
        }
    } catch (const CError&) {
    }
    return 0;
}
