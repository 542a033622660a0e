#include "modbus/maplist/profile_maplist.h"

#include "modbus/config/modbus_device_config.h"
#include "util/log.h"

#include <cassert>
#include <cstdint>
#include <cstdio>
#include <map>
#include <unordered_set>

namespace {

struct prof_txt_t {
    char header[64];
    uint32_t modes[4];
};

// One row per column, then an end mark.
const prof_txt_t prof_txt[] = {
    {"Parameter Name", {1, 1, 1, 1}},
    {"Display Name", {1, 1, 1, 1}},
    {"Base Address (%zu-based)", {1, 1, 1, 1}},
    {"Discrete", {1, 1, 1, 1}},
    {"Units", {1, 1, 1, 1}},
    {"Type", {1, 1, 1, 1}},
    {"Size (bytes)", {1, 1, 1, 1}},
    {"Is Timestamp", {1, 1, 1, 1}},
    {"Bit Offset", {1, 1, 0, 0}},
    {"Swap Bytes", {1, 1, 0, 0}},
    {"Swap Words", {1, 1, 0, 0}},
    {"Divider", {1, 1, 0, 0}},
    {"Multiplier", {1, 1, 0, 0}},
    {"Date Spec", {1, 1, 0, 0}},
    {"Alarm On False", {1, 1, 1, 1}},
    {"Writable", {1, 1, 1, 1}},
    {"Modbus Value", {1, 0, 1, 0}},
    {"Possible Values", {1, 1, 1, 1}},
    {"Description", {1, 0, 1, 0}},
    {"", {0, 0, 0, 0}},
};
static_assert(sizeof(prof_txt) / sizeof(prof_txt[0]) == CProfileMapping::FIELD_COUNT + 1,
              "one column per row field, and the end mark");

const char* const attr_names[CProfileMaplist::ATTR_MAX] = {
    "Value", "Units", "DisplayName", "Writable", "PossibleValues", "Description", ".Prominence"};

bool column_shown(size_t column, unsigned int mode) {
    assert(mode >= 1 && mode <= 4);
    return prof_txt[column].modes[mode - 1] != 0;
}

// Parameter paths may be nested below the device node, so "the store holds the parameter"
// means every level of its path is a child of the level above. Each node is listed once.
class CNodeIndex {
public:
    CNodeIndex(CCdsHandle& cds, const tk_string& root) : _cds(cds), _root(root) {}

    bool holds(const tk_string& rel) {
        tk_string node = _root;
        size_t pos = 0;
        while (pos < rel.size()) {
            size_t end = rel.find('/', pos);
            if (end == tk_string::npos)
                end = rel.size();
            if (end > pos) {
                const tk_string name = rel.substr(pos, end - pos);
                if (!children(node).count(name))
                    return false;
                node += "/" + name;
            }
            pos = end + 1;
        }
        return node != _root;
    }

private:
    const std::unordered_set<tk_string>& children(const tk_string& node) {
        auto it = _children.find(node);
        if (it == _children.end())
            it = _children.emplace(node, _cds.list_nodes(node)).first;
        return it->second;
    }

    CCdsHandle& _cds;
    tk_string _root;
    std::map<tk_string, std::unordered_set<tk_string>> _children;
};

bool is_true(const toolkit::CElement& el) {
    return el.is_bool() && el.to_bool();
}

// The leaf texts every row takes alike.
void fill_attributes(CProfileMapping& row, const std::vector<toolkit::CElement>& el) {
    using P = CProfileMapping;
    row[P::DISPLAY_NAME] = el[CProfileMaplist::ATTR_DISPLAY_NAME].str();
    row[P::POSSIBLE_VALUES] = el[CProfileMaplist::ATTR_POSSIBLE_VALUES].str();
    row[P::DESCRIPTION] = el[CProfileMaplist::ATTR_DESCRIPTION].str();
    row[P::WRITABLE] = is_true(el[CProfileMaplist::ATTR_WRITABLE]) ? "Yes" : "No";
}

} // namespace

unsigned int CProfileMaplist::mode(bool master_mapping, bool description) {
    if (master_mapping)
        return description ? 3 : 4;
    return description ? 1 : 2;
}

std::vector<tk_string> CProfileMaplist::get_paths(const tk_string& node, const tk_string& name) {
    std::vector<tk_string> paths;
    paths.reserve(ATTR_MAX);
    for (const char* attr : attr_names) {
        paths.push_back(node + "/" + name + "/" + attr);
        LOG_DEBUG(SS_PROTOCOL, 4, "data  %s ", paths.back().c_str());
    }
    return paths;
}

void CProfileMaplist::build_profile(CModbusDeviceConfig& devcfg, CCdsHandle& cds, regaddr_t base) {
    LOG_STACK();
    _discretes = devcfg.get_discretes(CAddressRange::all_addrs());
    _registers = devcfg.get_registers(CAddressRange::all_addrs());
    LOG_DEBUG(SS_PROTOCOL, 2, "devcfg.path() %s", devcfg.path().c_str());
    LOG_DEBUG(SS_PROTOCOL, 2, "_discretes->_configs.size() %zu", _discretes->configs().size());
    LOG_DEBUG(SS_PROTOCOL, 2, "_registers->_configs.size() %zu", _registers->configs().size());

    const tk_string& node = devcfg.path();
    CNodeIndex index(cds, node);
    for (const auto& range : _discretes->ranges()) {
        for (auto it = range.first; it != range.second; ++it) {
            const CParamDiscreteMapping& mapping = *it->second;
            if (!index.holds(mapping.param_path()))
                continue;
            LOG_DEBUG(SS_PROTOCOL, 2, "discrete match: addr %05u  param.id %zu  %s ",
                      unsigned(it->first.first), mapping.id(), mapping.param_path().c_str());
            build_discrete_entry(cds, node, mapping,
                                 static_cast<regaddr_t>(base + it->first.first));
        }
    }
    size_t cfgcnt = 0;
    for (const auto& range : _registers->register_ranges()) {
        for (auto it = range.first; it != range.second; ++it, ++cfgcnt) {
            const CParamRegisterMapping& mapping = *it->second;
            if (!index.holds(mapping.param_path()))
                continue;
            LOG_DEBUG(SS_PROTOCOL, 2, "register match: addr %05u  param.id %zu  %s ",
                      unsigned(it->first.first), mapping.id(), mapping.param_path().c_str());
            assert(cfgcnt < _registers->configs().size());
            CModbusParamDynamicConfig* cfg = _registers->configs()[cfgcnt];
            assert(cfg != nullptr);
            build_register_entry(cds, node, mapping, static_cast<regaddr_t>(base + it->first.first),
                                 *cfg);
        }
    }
}

std::vector<toolkit::CElement> CProfileMaplist::read_attributes(CCdsHandle& cds,
                                                                const tk_string& node,
                                                                const tk_string& name) const {
    std::vector<toolkit::CElement> el = cds.get_vals(get_paths(node, name));
    LOG_DEBUG(SS_PROTOCOL, 3, "el.size()  %zu  ATTR_MAX %u", el.size(), unsigned(ATTR_MAX));
    if (el.size() != ATTR_MAX)
        return std::vector<toolkit::CElement>();
    const tk_string prominence = el[ATTR_PROMINENCE].str();
    LOG_DEBUG(SS_PROTOCOL, 3, "%-32s  ATTR_PROMINENCE %s", name.c_str(), prominence.c_str());
    if (prominence == "Advanced" || prominence == "Hidden")
        return std::vector<toolkit::CElement>();
    return el;
}

void CProfileMaplist::build_register_entry(CCdsHandle& cds, const tk_string& node,
                                           const CParamRegisterMapping& mapping, regaddr_t addr,
                                           CModbusParamDynamicConfig& cfg) {
    using P = CProfileMapping;
    const tk_string name = mapping.param_path();
    const std::vector<toolkit::CElement> el = read_attributes(cds, node, name);
    if (el.empty())
        return;
    const tk_string units = el[ATTR_UNITS].str();
    LOG_DEBUG(SS_PROTOCOL, 3, "el[ATTR_UNITS].to_string() %s", units.c_str());

    // The translator scales by the units the store holds the value in, as the server does
    // once it has read them; without them the value shown would not be the one on the wire.
    if (!cfg.updated()) {
        cds_leaf_set_t leaves{CCdsLeaf(name + "/Writable", toolkit::CElement(el[ATTR_WRITABLE])),
                              CCdsLeaf(name + "/Units", toolkit::CElement(el[ATTR_UNITS]))};
        for (const CCdsLeaf& leaf : leaves)
            leaf._status = API_STATUS_OK;
        cfg.update(name, leaves);
    }

    const CRegisterMapping& translator = mapping.mapping();
    CProfileMapping row = translator.reverse_map(el[ATTR_VALUE], units, cfg);
    row[P::PARAMETER_NAME] = name;
    row[P::BASE_ADDRESS] = std::to_string(unsigned(addr));
    row[P::SIZE] = std::to_string(unsigned(translator.size()));
    if (translator.offset() != 0)
        row[P::BIT_OFFSET] = std::to_string(unsigned(translator.offset()));
    row[P::SWAP_BYTES] = translator.swap_bytes() ? "Yes" : "No";
    row[P::SWAP_WORDS] = translator.swap_words() ? "Yes" : "No";
    if (row[P::UNITS].empty())
        row[P::UNITS] = units;
    if (row[P::MODBUS_VALUE].empty())
        row[P::MODBUS_VALUE] = el[ATTR_VALUE].str();
    fill_attributes(row, el);
    _register_rows.push_back(std::move(row));
}

void CProfileMaplist::build_discrete_entry(CCdsHandle& cds, const tk_string& node,
                                           const CParamDiscreteMapping& mapping, regaddr_t addr) {
    using P = CProfileMapping;
    const std::vector<toolkit::CElement> el = read_attributes(cds, node, mapping.param_path());
    if (el.empty())
        return;
    CProfileMapping row;
    row[P::BASE_ADDRESS] = std::to_string(unsigned(addr));
    row[P::PARAMETER_NAME] = mapping.param_path();
    row[P::DISCRETE] = "Yes";
    row[P::TYPE].clear();
    row[P::IS_TIMESTAMP].clear();
    row[P::ALARM_ON_FALSE] = mapping.negate() ? "Yes" : "No";
    row[P::MODBUS_VALUE] = el[ATTR_VALUE].str();
    fill_attributes(row, el);
    _discrete_rows.push_back(std::move(row));
}

void CProfileMaplist::print_profile(unsigned short base, bool master_mapping,
                                    bool description) const {
    if (_register_rows.empty() && _discrete_rows.empty())
        return;
    const unsigned int m = mode(master_mapping, description);
    print_csv_header(m, base);
    print_register_entries(m);
    print_discrete_entries(m);
}

void CProfileMaplist::print_csv_header(unsigned int mode, unsigned short base) {
    tk_string line;
    for (size_t c = 0; c < CProfileMapping::FIELD_COUNT; ++c) {
        if (!column_shown(c, mode))
            continue;
        if (c != 0)
            line += ",";
        if (c == CProfileMapping::BASE_ADDRESS) {
            char text[128];
            std::snprintf(text, sizeof(text), prof_txt[c].header, size_t(base));
            line += text;
        } else {
            line += prof_txt[c].header;
        }
    }
    if (!line.empty())
        std::puts(line.c_str());
}

void CProfileMaplist::print_entry(const CProfileMapping& row, unsigned int mode) {
    tk_string line;
    for (size_t c = 0; c < CProfileMapping::FIELD_COUNT; ++c) {
        if (!column_shown(c, mode))
            continue;
        if (c != 0)
            line += ",";
        line += row[static_cast<CProfileMapping::field_t>(c)];
    }
    if (!line.empty())
        std::puts(line.c_str());
}

void CProfileMaplist::print_register_entries(unsigned int mode) const {
    for (const CProfileMapping& row : _register_rows)
        print_entry(row, mode);
}

void CProfileMaplist::print_discrete_entries(unsigned int mode) const {
    for (const CProfileMapping& row : _discrete_rows)
        print_entry(row, mode);
}
