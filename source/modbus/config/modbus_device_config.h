#pragma once
// What the server knows of one unit (a TCP unit id, or a serial slave): the store path of
// the device it serves, its parsed mapping files, shared with other units that name the
// same files, and once resolved its own map of store leaves with the run-time attributes of
// its parameters, which requests and the profiler walk.
#include "modbus/core/unit_counters.h"
#include "modbus/core/unit_map.h"
#include "modbus/map/eds_mapping.h"

#include <memory>
#include <vector>

typedef std::vector<std::shared_ptr<const CEdsMapping>> eds_mapvec_t;

class CModbusDeviceConfig {
public:
    // edsvec in the order of the unit's "/EDS Paths"; zero_fill is handed to its requests.
    CModbusDeviceConfig(const tk_string& path, const eds_mapvec_t& edsvec, bool zero_fill);
    CModbusDeviceConfig(const CModbusDeviceConfig&) = delete;
    CModbusDeviceConfig& operator=(const CModbusDeviceConfig&) = delete;

    // Resolves the unit's leaves into table (once, when the registry is built).
    void resolve(toolkit::CLeafTable& table);
    // The resolved map; resolve() must have run.
    const CUnitMap& unit() const;

    // The device's store path: the prefix of every leaf the unit's map names.
    const tk_string& path() const { return _path; }
    const eds_mapvec_t& eds() const { return _eds; }
    // Unmapped or unreadable addresses read as 0 instead of failing the request.
    bool zero_fill() const { return _zero_fill; }
    // Register, discrete and event mappings over all the unit's files.
    size_t mapping_count() const;
    // The unit's request counters and mode, kept by the I/O thread's requests.
    CUnitCounters& counters() const { return _counters; }

private:
    tk_string _path;
    eds_mapvec_t _eds;
    bool _zero_fill;
    std::unique_ptr<CUnitMap> _unit;
    mutable CUnitCounters _counters;
};
