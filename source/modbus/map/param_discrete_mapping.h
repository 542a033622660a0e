#pragma once
// A boolean parameter on one coil or discrete input.
#include "modbus/map/param_mapping.h"

#include "toolkit/element.h"

class CParamDiscreteMapping : public CParamMapping {
public:
    // "NegateValue" = true inverts the bit in both directions; anything but true or false
    // fails.
    CParamDiscreteMapping(const toolkit::node_map_t& node, size_t id);

    bool negate() const { return _negate; }

    // The bit a read reports for the parameter's value.
    bool translate(const toolkit::CElement& el) const;
    // The value a written bit stores; stamped with the invalid time so that the store
    // stamps it.
    toolkit::CElement translate(bool value) const;

private:
    bool _negate = false;
};
