#pragma once
// What each role of a secure Modbus TCP client may ask: the function codes and, optionally,
// the unit ids its requests may carry. A client whose certificate names no role, or a role
// the table lacks, gets the default role's rights; without a default role it may ask nothing.
#include "modbus/core/access_rule.h"

#include <cstdint>
#include <map>
#include <string>

class CModbusRoles {
public:
    using set_t = CAccessRule::set_t;
    using rule_t = CAccessRule;

    // "1-6,15,16": numbers and ranges from 0 to 255, separated by ',', ';' or blanks. False
    // when an entry is none of these (out is then unspecified) or there is no entry.
    static bool parse_list(const std::string& text, set_t& out);

    void add(const std::string& role, const rule_t& rule) { _rules[role] = rule; }
    // Empty: no default, so clients without a known role are refused everything.
    void set_default_role(const std::string& role) { _default = role; }
    const std::string& default_role() const { return _default; }
    bool has(const std::string& role) const { return _rules.count(role) != 0; }
    size_t size() const { return _rules.size(); }

    // The rule of a client with role (empty: none): its own, else the default role's, else
    // one that allows nothing. Valid as long as the table.
    const CAccessRule& rule_for(const std::string& role) const;
    // Whether a client with role may send function to unit.
    bool allows(const std::string& role, uint8_t function, uint8_t unit) const {
        return rule_for(role).allows(function, unit);
    }

private:
    std::map<std::string, rule_t> _rules;
    std::string _default;
};
