#include "modbus/config/modbus_roles.h"

#include <cctype>
#include <cstdlib>

namespace {

// A number from 0 to 255 made of digits only.
bool parse_number(const std::string& text, unsigned& out) {
    if (text.empty() || text.size() > 3)
        return false;
    for (const char c : text)
        if (!std::isdigit(static_cast<unsigned char>(c)))
            return false;
    out = static_cast<unsigned>(std::strtoul(text.c_str(), nullptr, 10));
    return out <= 255;
}

} // namespace

bool CModbusRoles::parse_list(const std::string& text, set_t& out) {
    out.reset();
    bool any = false;
    size_t pos = 0;
    while (pos < text.size()) {
        const size_t end = text.find_first_of(",; \t", pos);
        const std::string entry = text.substr(pos, end == std::string::npos ? end : end - pos);
        pos = end == std::string::npos ? text.size() : end + 1;
        if (entry.empty())
            continue;
        const size_t dash = entry.find('-');
        unsigned first = 0;
        unsigned last = 0;
        if (dash == std::string::npos) {
            if (!parse_number(entry, first))
                return false;
            last = first;
        } else if (!parse_number(entry.substr(0, dash), first) ||
                   !parse_number(entry.substr(dash + 1), last) || last < first) {
            return false;
        }
        for (unsigned n = first; n <= last; ++n)
            out.set(n);
        any = true;
    }
    return any;
}

const CAccessRule& CModbusRoles::rule_for(const std::string& role) const {
    static const CAccessRule nothing{};
    auto rule = _rules.find(role);
    if (rule == _rules.end())
        rule = _rules.find(_default);
    return rule == _rules.end() ? nothing : rule->second;
}
