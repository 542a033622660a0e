#include "profiler/profile_builder.h"

#include "profiler/node_index.h"
#include "util/log.h"

#include <cassert>
#include <cstdint>
#include <cstdio>

namespace {

struct column_t {
    const char* header;
    // Shown in print modes 1 to 4 (see print_mode).
    uint32_t modes[4];
};

const column_t columns[] = {
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
};
static_assert(sizeof(columns) / sizeof(columns[0]) == CProfileMapping::FIELD_COUNT,
              "one column per row field");

// The leaf names below a parameter's node, in attr_t order.
const char* const attr_names[] = {"Value",          "Units",       "DisplayName", "Writable",
                                  "PossibleValues", "Description", ".Prominence"};

// The description adds "Modbus Value" and "Description"; the master mapping drops the
// encoding columns.
unsigned int print_mode(bool master_mapping, bool description) {
    if (master_mapping)
        return description ? 3 : 4;
    return description ? 1 : 2;
}

bool column_shown(size_t column, unsigned int mode) {
    assert(mode >= 1 && mode <= 4);
    return columns[column].modes[mode - 1] != 0;
}

void print_header(unsigned int mode, unsigned short base) {
    tk_string line;
    for (size_t c = 0; c < CProfileMapping::FIELD_COUNT; ++c) {
        if (!column_shown(c, mode))
            continue;
        if (c != 0)
            line += ",";
        if (c == CProfileMapping::BASE_ADDRESS) {
            char text[128];
            std::snprintf(text, sizeof(text), columns[c].header, size_t(base));
            line += text;
        } else {
            line += columns[c].header;
        }
    }
    std::puts(line.c_str());
}

void print_rows(const std::vector<CProfileMapping>& rows, unsigned int mode) {
    for (const CProfileMapping& row : rows) {
        tk_string line;
        for (size_t c = 0; c < CProfileMapping::FIELD_COUNT; ++c) {
            if (!column_shown(c, mode))
                continue;
            if (c != 0)
                line += ",";
            line += row[static_cast<CProfileMapping::field_t>(c)];
        }
        std::puts(line.c_str());
    }
}

bool is_true(const toolkit::CElement& el) {
    return el.is_bool() && el.to_bool();
}

} // namespace

void CProfileBuilder::build(const CUnitMap& unit, const tk_string& device, CCdsHandle& cds,
                            regaddr_t base) {
    LOG_STACK();
    CNodeIndex index(cds, device);
    for (const CUnitMap::register_index_t& file : unit.registers()) {
        for (const resolved_register_t& r : file.items()) {
            const tk_string name = r.mapping->param_path();
            if (!index.holds(name))
                continue;
            LOG_DEBUG(SS_PROTOCOL, 2, "register match: addr %05u  param.id %zu  %s ",
                      unsigned(r.addr.first), r.id, name.c_str());
            const attributes_t el = read_attributes(cds, device, name);
            if (!el.empty())
                add_register_row(*r.mapping, static_cast<regaddr_t>(base + r.addr.first), el);
        }
    }
    for (const CUnitMap::discrete_index_t& file : unit.discretes()) {
        for (const resolved_discrete_t& d : file.items()) {
            const tk_string name = d.mapping->param_path();
            if (!index.holds(name))
                continue;
            LOG_DEBUG(SS_PROTOCOL, 2, "discrete match: addr %05u  param.id %zu  %s ",
                      unsigned(d.addr.first), d.id, name.c_str());
            const attributes_t el = read_attributes(cds, device, name);
            if (!el.empty())
                add_discrete_row(*d.mapping, static_cast<regaddr_t>(base + d.addr.first), el);
        }
    }
}

void CProfileBuilder::print(unsigned short base, bool master_mapping, bool description) const {
    if (_register_rows.empty() && _discrete_rows.empty())
        return;
    const unsigned int mode = print_mode(master_mapping, description);
    print_header(mode, base);
    print_rows(_register_rows, mode);
    print_rows(_discrete_rows, mode);
}

CProfileBuilder::attributes_t
CProfileBuilder::read_attributes(CCdsHandle& cds, const tk_string& device, const tk_string& name) {
    static_assert(sizeof(attr_names) / sizeof(attr_names[0]) == ATTR_MAX,
                  "one leaf name per attribute");
    std::vector<tk_string> paths;
    paths.reserve(ATTR_MAX);
    for (const char* attr : attr_names)
        paths.push_back(device + "/" + name + "/" + attr);
    attributes_t el = cds.get_vals(paths);
    // The store answers all of them or none.
    if (el.size() != ATTR_MAX)
        return attributes_t();
    const tk_string prominence = el[ATTR_PROMINENCE].str();
    LOG_DEBUG(SS_PROTOCOL, 3, "%-32s  ATTR_PROMINENCE %s", name.c_str(), prominence.c_str());
    if (prominence == "Advanced" || prominence == "Hidden")
        return attributes_t();
    return el;
}

void CProfileBuilder::fill_attributes(CProfileMapping& row, const attributes_t& el) {
    using P = CProfileMapping;
    row[P::DISPLAY_NAME] = el[ATTR_DISPLAY_NAME].str();
    row[P::POSSIBLE_VALUES] = el[ATTR_POSSIBLE_VALUES].str();
    row[P::DESCRIPTION] = el[ATTR_DESCRIPTION].str();
    row[P::WRITABLE] = is_true(el[ATTR_WRITABLE]) ? "Yes" : "No";
}

void CProfileBuilder::add_register_row(const CParamRegisterMapping& mapping, regaddr_t addr,
                                       const attributes_t& el) {
    using P = CProfileMapping;
    const tk_string units = el[ATTR_UNITS].str();
    // The translator scales by the units the store holds the value in, as the server does
    // once it has read them; without them the value shown would not be the one on the wire.
    // The profile reads them afresh rather than take the unit map's, which requests fill in.
    CModbusParamDynamicConfig cfg;
    cfg.update(toolkit::CLeafValue{API_STATUS_OK, el[ATTR_WRITABLE], 0},
               toolkit::CLeafValue{API_STATUS_OK, el[ATTR_UNITS], 0});

    const CRegisterMapping& translator = mapping.mapping();
    CProfileMapping row = translator.reverse_map(el[ATTR_VALUE], units, cfg);
    row[P::PARAMETER_NAME] = mapping.param_path();
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

void CProfileBuilder::add_discrete_row(const CParamDiscreteMapping& mapping, regaddr_t addr,
                                       const attributes_t& el) {
    using P = CProfileMapping;
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
