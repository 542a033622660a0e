#pragma once
// A unit's profile: its Modbus map as a table with one row per mapped parameter that the
// store holds, printed as comma-separated text on stdout.
//
// build() walks the unit's resolved map in the order the server walks it (files in the
// unit's order, each in first-address order) and keeps a row for each parameter whose node
// exists below the device node and whose ".Prominence" is neither "Advanced" nor "Hidden".
// Event mappings name no parameter and get no row. print() then writes a header and the
// rows: registers first, then coils and discrete inputs. Texts are written as they are: a
// comma inside a description shifts the later columns, by design. With no rows nothing is
// printed, not even the header.
#include "cds/cds_handle.h"
#include "modbus/core/unit_map.h"
#include "modbus/map/profile_mapping.h"

#include <vector>

class CProfileBuilder {
public:
    // Reads the attributes of the unit's parameters below device (the store path the unit
    // was resolved under) through cds and adds their rows. Addresses are printed as
    // base + address, modulo 65536. Throws CError only when the store itself fails.
    void build(const CUnitMap& unit, const tk_string& device, CCdsHandle& cds, regaddr_t base);
    // base only names the address column ("Base Address (1-based)"). master_mapping drops
    // the encoding columns (bit offset to date spec); description adds the current value
    // ("Modbus Value") and "Description".
    void print(unsigned short base, bool master_mapping, bool description) const;

private:
    // The attribute leaves of a parameter, in the order of the paths read_attributes asks for.
    enum attr_t {
        ATTR_VALUE,
        ATTR_UNITS,
        ATTR_DISPLAY_NAME,
        ATTR_WRITABLE,
        ATTR_POSSIBLE_VALUES,
        ATTR_DESCRIPTION,
        ATTR_PROMINENCE,
        ATTR_MAX
    };
    typedef std::vector<toolkit::CElement> attributes_t;

    // The attributes of a parameter that gets a row; empty when it gets none.
    static attributes_t read_attributes(CCdsHandle& cds, const tk_string& device,
                                        const tk_string& name);
    static void fill_attributes(CProfileMapping& row, const attributes_t& el);
    void add_register_row(const CParamRegisterMapping& mapping, regaddr_t addr,
                          const attributes_t& el);
    void add_discrete_row(const CParamDiscreteMapping& mapping, regaddr_t addr,
                          const attributes_t& el);

    std::vector<CProfileMapping> _register_rows;
    std::vector<CProfileMapping> _discrete_rows;
};
