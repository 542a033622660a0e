#pragma once
// The registry of units that request handling consults: one device configuration per TCP
// unit id, per RTU over TCP unit id and per (serial interface number, slave address), built
// once at start from the settings. Every mapping file is parsed once, however many units name it.
//
// Construction logs, for every file that does not parse, the file's own error and then
// "Error parsing EDS file: '<path>'", and throws CError, reported: the server must not run
// with a broken map. A second unit with a unit id (or interface and slave address) already
// taken is an error and left out. Read-only after construction, except for the parameters'
// run-time attributes in the unit maps.
#include "modbus/config/modbus_device_config.h"
#include "modbus/config/modbus_settings.h"
#include "toolkit/leaf_table.h"

#include <boost/ptr_container/ptr_map.hpp>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <utility>
#include <vector>

class CModbusConfig {
public:
    typedef std::pair<unsigned int, slave_addr_t> serial_key_t;
    typedef boost::ptr_map<unit_id_t, CModbusDeviceConfig> tcp_map_t;
    typedef boost::ptr_map<serial_key_t, CModbusDeviceConfig> serial_map_t;
    // Lines of warn_missing_leaves before it only counts.
    static constexpr size_t max_missing_lines = 20;

    explicit CModbusConfig(const CModbusSettings& settings);
    CModbusConfig(const CModbusConfig&) = delete;
    CModbusConfig& operator=(const CModbusConfig&) = delete;

    // Null when no unit has the id (or the interface no such slave).
    CModbusDeviceConfig* tcp_config(unit_id_t id);
    CModbusDeviceConfig* rtu_over_tcp_config(unit_id_t id);
    CModbusDeviceConfig* serial_config(unsigned int iface, slave_addr_t addr);

    uint32_t tcp_timeout() const { return _tcp_timeout; }
    // Function 16 (and 23's write) may span several parameters.
    bool block_writes() const { return _block_writes; }
    // WAL frames past which the store is checkpointed at once (0: only when idle).
    uint32_t checkpoint_frames() const { return _checkpoint_frames; }
    uint32_t store_cache_kib() const { return _store_cache_kib; }
    // Nine tenths of the time-out: the time a request may take before its answer is late.
    uint32_t tcp_working_limit() const { return _tcp_working_limit; }
    uint32_t serial_timeout() const { return _serial_timeout; }
    uint32_t serial_working_limit() const { return _serial_working_limit; }
    // The largest event index any file maps (0 without event mappings): the event queue
    // needs one slot more.
    size_t max_event_index() const { return _max_event_index; }
    // Whether any mapping file maps events.
    bool has_events() const { return _has_events; }

    // Every leaf the units' mappings name, resolved when the units were built; the store
    // connections that serve requests bind it.
    const toolkit::CLeafTable& leaves() const { return _leaves; }

    size_t tcp_count() const { return _tcp_map.size(); }
    size_t serial_count() const { return _serial_map.size(); }
    // The units in key order, for start-up reports.
    const tcp_map_t& tcp_units() const { return _tcp_map; }
    const tcp_map_t& rtu_over_tcp_units() const { return _rtu_over_tcp_map; }
    const serial_map_t& serial_units() const { return _serial_map; }

    // Reads every leaf the units' register and discrete mappings name, in one batch, and
    // warns about each one the store lacks (its full path and the unit and file that map
    // it; after max_missing_lines only the count). Returns how many are missing. Throws
    // CError when the store fails.
    size_t warn_missing_leaves(CCdsHandle& cds) const;
    // Lets every parsed file warn about its overlapping mappings, once per file, in path
    // order; returns how many overlapping pairs there are.
    size_t warn_overlaps() const;

private:
    typedef std::map<tk_string, std::shared_ptr<const CEdsMapping>> eds_map_t;

    void parse(const CModbusSettings& settings, eds_map_t& eds_map);
    void add_units(const std::vector<CModbusTcpUnitSettings>& units, bool zero_fill,
                   const eds_map_t& eds_map, tcp_map_t& map);
    eds_mapvec_t lookup(const eds_map_t& eds_map, const std::vector<tk_string>& paths) const;

    toolkit::CLeafTable _leaves;
    tcp_map_t _tcp_map;
    tcp_map_t _rtu_over_tcp_map;
    serial_map_t _serial_map;
    // The file each parsed mapping came from, for messages.
    std::map<const CEdsMapping*, tk_string> _eds_names;
    uint32_t _tcp_timeout;
    bool _block_writes;
    uint32_t _checkpoint_frames;
    uint32_t _store_cache_kib;
    uint32_t _tcp_working_limit;
    uint32_t _serial_timeout;
    uint32_t _serial_working_limit;
    size_t _max_event_index = 0;
    bool _has_events = false;
};
