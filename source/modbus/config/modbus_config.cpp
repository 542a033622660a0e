#include "modbus/config/modbus_config.h"
#include "util/error.h"
#include "util/log.h"

#include <cassert>
#include <set>

namespace {

// A mapping's leaf under its device, as a user would write it: one '/' between the two.
tk_string leaf_path(const tk_string& device, const tk_string& leaf) {
    return device + (leaf.empty() || leaf[0] != '/' ? "/" : "") + leaf;
}

uint32_t nine_tenths(uint32_t timeout) {
    return static_cast<uint32_t>(static_cast<uint64_t>(timeout) * 9 / 10);
}

} // namespace

CModbusConfig::CModbusConfig(const CModbusSettings& settings)
    : _tcp_timeout(settings.tcp().timeout()), _block_writes(settings.block_writes()),
      _checkpoint_frames(settings.checkpoint_pages()), _store_cache_kib(settings.store_cache_kib()),
      _tcp_working_limit(nine_tenths(_tcp_timeout)), _serial_timeout(settings.serial().timeout()),
      _serial_working_limit(nine_tenths(_serial_timeout)) {
    LOG_STACK();
    eds_map_t eds_map;
    parse(settings, eds_map);

    add_units(settings.tcp().units(), settings.zero_fill(), eds_map, _tcp_map);
    add_units(settings.tcp().rtu_over_tcp_units(), settings.zero_fill(), eds_map,
              _rtu_over_tcp_map);

    for (const CModbusSerialInterfaceSettings& iface : settings.serial().interfaces()) {
        for (const CModbusSerialSlaveSettings& slave : iface.slaves()) {
            const serial_key_t key(iface.number(), slave.slave_address());
            for (const tk_string& path : slave.eds_paths())
                LOG_DEBUG(SS_CONFIG, 5,
                          "Interface ID %u, Serial Port Name %s, Slave Address %u : EDS '%s'",
                          iface.number(), iface.serial_port().c_str(),
                          static_cast<unsigned>(key.second), path.c_str());
            if (_serial_map.count(key)) {
                LOG_ERR(SS_CONFIG, 0,
                        "Duplicate Slave Address %u on interface %u; ignoring slave with device "
                        "path '%s'",
                        static_cast<unsigned>(key.second), key.first, slave.device_path().c_str());
                continue;
            }
            _serial_map.insert(key, std::make_unique<CModbusDeviceConfig>(
                                        slave.device_path(), lookup(eds_map, slave.eds_paths()),
                                        settings.zero_fill()));
        }
    }
    for (auto unit : _tcp_map)
        unit.second->resolve(_leaves);
    for (auto unit : _rtu_over_tcp_map)
        unit.second->resolve(_leaves);
    for (auto unit : _serial_map)
        unit.second->resolve(_leaves);
}

void CModbusConfig::add_units(const std::vector<CModbusTcpUnitSettings>& units, bool zero_fill,
                              const eds_map_t& eds_map, tcp_map_t& map) {
    for (const CModbusTcpUnitSettings& unit : units) {
        const unit_id_t id = unit.unit_id();
        for (const tk_string& path : unit.eds_paths())
            LOG_DEBUG(SS_CONFIG, 5, "Unit ID %u : EDS '%s'", static_cast<unsigned>(id),
                      path.c_str());
        // Store data, not a programming error: the first unit keeps the id.
        if (map.count(id)) {
            LOG_ERR(SS_CONFIG, 0, "Duplicate Unit ID %u; ignoring unit with device path '%s'",
                    static_cast<unsigned>(id), unit.device_path().c_str());
            continue;
        }
        map.insert(id, std::make_unique<CModbusDeviceConfig>(
                           unit.device_path(), lookup(eds_map, unit.eds_paths()), zero_fill));
    }
}

void CModbusConfig::parse(const CModbusSettings& settings, eds_map_t& eds_map) {
    std::set<tk_string> paths;
    for (const CModbusTcpUnitSettings& unit : settings.tcp().units())
        paths.insert(unit.eds_paths().begin(), unit.eds_paths().end());
    for (const CModbusTcpUnitSettings& unit : settings.tcp().rtu_over_tcp_units())
        paths.insert(unit.eds_paths().begin(), unit.eds_paths().end());
    for (const CModbusSerialInterfaceSettings& iface : settings.serial().interfaces())
        for (const CModbusSerialSlaveSettings& slave : iface.slaves())
            paths.insert(slave.eds_paths().begin(), slave.eds_paths().end());

    // Every file is read even after one failed, so that one start reports every broken file:
    // each file's error is logged here, where the next file is taken up.
    tk_string broken;
    for (const tk_string& edspath : paths) {
        LOG_DEBUG(SS_CONFIG, 4, "Parsing EDS file '%s'", edspath.c_str());
        assert(!eds_map.count(edspath));
        std::shared_ptr<const CEdsMapping> eds;
        try {
            eds = std::make_shared<const CEdsMapping>(edspath, settings.strict_mapping_files());
        } catch (const CError& e) {
            LOG_CAUGHT(e);
        } catch (...) { // whatever else a broken file throws, the start-up reports it the same way
        }
        if (!eds) {
            LOG_ERR(SS_CONFIG, 0, "Error parsing EDS file: '%s'", edspath.c_str());
            broken += (broken.empty() ? "'" : ", '") + edspath + "'";
            continue;
        }
        if (eds->max_event_index() > _max_event_index)
            _max_event_index = eds->max_event_index();
        const auto events = eds->get_event_mappings(CAddressRange::all_addrs());
        _has_events = _has_events || events.first != events.second;
        _eds_names.emplace(eds.get(), edspath);
        eds_map.emplace(edspath, std::move(eds));
    }
    if (!broken.empty()) {
        // Each file has been named above: the caller only decides what happens next.
        const CError error("Mapping files that do not parse: " + broken, SS_CONFIG);
        error.mark_reported();
        throw error;
    }
}

eds_mapvec_t CModbusConfig::lookup(const eds_map_t& eds_map,
                                   const std::vector<tk_string>& paths) const {
    eds_mapvec_t out;
    for (const tk_string& edspath : paths) {
        assert(eds_map.count(edspath));
        out.push_back(eds_map.find(edspath)->second);
    }
    return out;
}

CModbusDeviceConfig* CModbusConfig::tcp_config(unit_id_t id) {
    const auto imap = _tcp_map.find(id);
    if (imap == _tcp_map.end())
        return nullptr;
    assert(imap->second != nullptr);
    return imap->second;
}

CModbusDeviceConfig* CModbusConfig::rtu_over_tcp_config(unit_id_t id) {
    const auto imap = _rtu_over_tcp_map.find(id);
    return imap == _rtu_over_tcp_map.end() ? nullptr : imap->second;
}

CModbusDeviceConfig* CModbusConfig::serial_config(unsigned int iface, slave_addr_t addr) {
    const auto imap = _serial_map.find(serial_key_t(iface, addr));
    if (imap == _serial_map.end())
        return nullptr;
    assert(imap->second != nullptr);
    return imap->second;
}

size_t CModbusConfig::warn_missing_leaves(CCdsHandle& cds) const {
    LOG_STACK();
    // Full leaf path -> who maps it first; units sharing a device and a file share leaves.
    std::map<tk_string, tk_string> wanted;
    auto collect = [&](const CModbusDeviceConfig& device, const tk_string& who) {
        for (const auto& eds : device.eds()) {
            const tk_string where = who + " in '" + _eds_names.at(eds.get()) + "'";
            const auto registers = eds->get_register_mappings(CAddressRange::all_addrs());
            for (auto it = registers.first; it != registers.second; ++it)
                wanted.emplace(leaf_path(device.path(), it->second->path()), where);
            const auto discretes = eds->get_discrete_mappings(CAddressRange::all_addrs());
            for (auto it = discretes.first; it != discretes.second; ++it)
                wanted.emplace(leaf_path(device.path(), it->second->path()), where);
        }
    };
    for (const auto& unit : _tcp_map)
        collect(*unit.second, "TCP unit " + std::to_string(unit.first));
    for (const auto& unit : _rtu_over_tcp_map)
        collect(*unit.second, "RTU over TCP unit " + std::to_string(unit.first));
    for (const auto& slave : _serial_map)
        collect(*slave.second, "serial interface " + std::to_string(slave.first.first) + " slave " +
                                   std::to_string(slave.first.second));

    cds_leaf_set_t leaves;
    for (const auto& entry : wanted)
        leaves.emplace(entry.first);
    // Full paths: the empty prefix puts a second '/' in front, which the store folds.
    cds.get(leaves, tk_string());
    size_t missing = 0;
    for (const auto& entry : wanted) {
        const auto leaf = leaves.find(CCdsLeaf(entry.first));
        assert(leaf != leaves.end());
        if (leaf->_status == API_STATUS_OK)
            continue;
        // A wrong device path makes every leaf of a unit missing; a screenful says enough.
        if (++missing <= max_missing_lines)
            LOG_WARN(SS_CONFIG, 0, "'%s' is not in the store (mapped by %s)", entry.first.c_str(),
                     entry.second.c_str());
    }
    if (missing > max_missing_lines)
        LOG_WARN(SS_CONFIG, 0, "%zu more mapped leaves are not in the store",
                 missing - max_missing_lines);
    return missing;
}

size_t CModbusConfig::warn_overlaps() const {
    std::map<tk_string, const CEdsMapping*> by_path;
    for (const auto& entry : _eds_names)
        by_path.emplace(entry.second, entry.first);
    size_t pairs = 0;
    for (const auto& entry : by_path)
        pairs += entry.second->warn_overlaps();
    return pairs;
}
