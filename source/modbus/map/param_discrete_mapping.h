#pragma once
// A boolean parameter on one coil or discrete input.
#include "modbus/map/param_mapping.h"

#include "toolkit/element.h"

class CParamDiscreteMapping : public CParamMapping {
public:
    // "NegateValue" = true inverts the bit in both directions; any other value does not.
    CParamDiscreteMapping(const toolkit::node_map_t& node, size_t id);

    bool negate() const { return _negate; }

    // The bit a read reports for the parameter's value. Inline: a read of 2000 coils makes
    // 2000 of these calls.
    bool translate(const toolkit::CElement& el) const { return el.to_bool() != _negate; }
    // The value a written bit stores; stamped with the invalid time so that the store
    // stamps it.
    toolkit::CElement translate(bool value) const;

private:
    bool _negate = false;
};
