#pragma once
// A unit's profile: its Modbus map as a table with one row per mapped parameter that the
// store holds, printed as comma-separated text on stdout.
//
// build_profile walks every mapping of the unit in the order the server walks them and
// keeps a row for each parameter whose node exists below the device node and whose
// ".Prominence" is neither "Advanced" nor "Hidden". print_profile then writes a header and
// the rows, registers first. Texts are written as
// they are: a comma inside a description shifts the later columns, by design. With no rows
// nothing is printed, not even the header.
#include "cds/cds_handle.h"
#include "modbus/map/profile_mapping.h"
#include "modbus/maplist/discrete_maplist.h"
#include "modbus/maplist/register_maplist.h"

#include <memory>
#include <vector>

class CModbusDeviceConfig;

class CProfileMaplist {
public:
    // The attribute leaves of a parameter, in the order get_paths returns them.
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

    // Print modes 1 to 4: the description adds "Modbus Value" and "Description"; the master
    // mapping drops the encoding columns (bit offset to date spec).
    static unsigned int mode(bool master_mapping, bool description);

    // Reads the parameters' attributes through cds and fills the rows. Addresses are printed
    // as base + address, modulo 65536. Throws generic_err only when the store itself fails.
    void build_profile(CModbusDeviceConfig& devcfg, CCdsHandle& cds, regaddr_t base);
    void print_profile(unsigned short base, bool master_mapping, bool description) const;

    // node + "/" + name + "/" + attribute for each attr_t; name is the parameter's path
    // relative to node.
    static std::vector<tk_string> get_paths(const tk_string& node, const tk_string& name);
    static void print_csv_header(unsigned int mode, unsigned short base);
    static void print_entry(const CProfileMapping& row, unsigned int mode);
    void print_register_entries(unsigned int mode) const;
    void print_discrete_entries(unsigned int mode) const;

    const std::vector<CProfileMapping>& register_rows() const { return _register_rows; }
    const std::vector<CProfileMapping>& discrete_rows() const { return _discrete_rows; }

private:
    // The attributes of a parameter that gets a row; empty when it gets none.
    std::vector<toolkit::CElement> read_attributes(CCdsHandle& cds, const tk_string& node,
                                                   const tk_string& name) const;
    void build_register_entry(CCdsHandle& cds, const tk_string& node,
                              const CParamRegisterMapping& mapping, regaddr_t addr,
                              CModbusParamDynamicConfig& cfg);
    void build_discrete_entry(CCdsHandle& cds, const tk_string& node,
                              const CParamDiscreteMapping& mapping, regaddr_t addr);

    std::unique_ptr<CDiscreteMaplist> _discretes;
    std::unique_ptr<CRegisterMaplist> _registers;
    std::vector<CProfileMapping> _discrete_rows;
    std::vector<CProfileMapping> _register_rows;
};
