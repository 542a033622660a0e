#pragma once
// A boolean parameter on one coil or discrete input.
#include "modbus/map/param_mapping.h"

#include "toolkit/element.h"

class CParamDiscreteMapping : public CParamMapping {
public:
    // "NegateValue" = true inverts the bit in both directions; any other value does not.
    CParamDiscreteMapping(const toolkit::node_map_t& node, size_t id);

    bool negate() const { return _negate; }

    // The bit a read reports for the parameter's value, with negate() given (a read of 2000
    // coils keeps it beside each coil's leaf rather than reach for the mapping).
    static bool translate(const toolkit::CElement& el, bool negate) {
        return el.to_bool() != negate;
    }
    bool translate(const toolkit::CElement& el) const { return translate(el, _negate); }
    // The value a written bit stores; stamped with the invalid time so that the store
    // stamps it.
    toolkit::CElement translate(bool value) const;

private:
    bool _negate = false;
};
