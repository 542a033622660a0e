#pragma once
// A parameter's run-time attributes as the data store reports them: whether Modbus may
// write it and the units it is currently held in. Read once per parameter; until then the
// defaults apply (not writable, no units).
#include "toolkit/kvr.h"
#include "toolkit/leaf_table.h"

class CModbusParamDynamicConfig {
public:
    CModbusParamDynamicConfig() = default;
    // Attributes already known, e.g. read by another path or given by a test.
    CModbusParamDynamicConfig(bool writable, int units)
        : _updated(true), _writable(writable), _units(units) {}

    bool updated() const { return _updated; }
    bool writable() const { return _writable; }
    // The store's units enumeration; KVR_UNITS_NONE when the parameter has none.
    int units() const { return _units; }

    // Takes the attributes from the parameter's "/Writable" and "/Units" leaves as read, once:
    // a writable read as a bool sets writable, units the units (a text the store does not
    // know gives none). Missing or failed leaves keep the defaults. Later calls change
    // nothing.
    void update(const toolkit::CLeafValue& writable, const toolkit::CLeafValue& units);

private:
    bool _updated = false;
    bool _writable = false;
    int _units = KVR_UNITS_NONE;
};
