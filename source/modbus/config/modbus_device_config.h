#pragma once
// What the server knows of one unit (a TCP unit id, or a serial slave): the store path of
// the device it serves, its parsed mapping files, shared with other units that name the
// same files, and the run-time attributes of its parameters. Builds the map list of every
// request.
#include "modbus/config/modbus_device_dynamic_config.h"
#include "modbus/core/unit_counters.h"
#include "modbus/core/unit_map.h"
#include "modbus/map/eds_mapping.h"
#include "modbus/maplist/discrete_maplist.h"
#include "modbus/maplist/register_maplist.h"

#include <memory>
#include <vector>

typedef std::vector<std::shared_ptr<const CEdsMapping>> eds_mapvec_t;

class CProfileMaplist;

class CModbusDeviceConfig {
public:
    // edsvec in the order of the unit's "/EDS Paths"; zero_fill is handed to every map list.
    CModbusDeviceConfig(const tk_string& path, const eds_mapvec_t& edsvec, bool zero_fill);
    CModbusDeviceConfig(const CModbusDeviceConfig&) = delete;
    CModbusDeviceConfig& operator=(const CModbusDeviceConfig&) = delete;

    // The map lists of a request range, over the files in order (register mappings, then
    // event mappings, per file). r must not wrap (r.first <= r.second): a range that would
    // run past 0xFFFF gets an empty list, whose get_paths() is empty, as for a range where
    // nothing is mapped. The lists refer into this object and must not outlive it.
    std::unique_ptr<CDiscreteMaplist> get_discretes(const CAddressRange& r) const;
    std::unique_ptr<CRegisterMaplist> get_registers(const CAddressRange& r) const;
    // Resolves the unit's leaves into table (once, when the registry is built).
    void resolve(toolkit::CLeafTable& table);
    // The resolved map that requests use; resolve() must have run.
    const CUnitMap& unit() const;

    // An empty profile of the unit, for CProfileMaplist::build_profile to fill.
    std::unique_ptr<CProfileMaplist> get_profile() const;

    // The device's store path: the prefix of every leaf a map list names.
    const tk_string& path() const { return _path; }
    const eds_mapvec_t& eds() const { return _eds; }
    bool zero_fill() const { return _zero_fill; }
    // Register, discrete and event mappings over all the unit's files.
    size_t mapping_count() const;
    // Created with the device; entries are filled in by the requests' reads.
    CModbusDeviceDynamicConfig& dynamic_config() const { return *_dynamic; }
    // The unit's request counters and mode, kept by the I/O thread's requests.
    CUnitCounters& counters() const { return _counters; }

private:
    tk_string _path;
    eds_mapvec_t _eds;
    bool _zero_fill;
    std::unique_ptr<CModbusDeviceDynamicConfig> _dynamic;
    std::unique_ptr<CUnitMap> _unit;
    mutable CUnitCounters _counters;
};
