#include "util/option_helpers.h"

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <string>

namespace option_helpers {

namespace {
void require_args(const std::vector<tk_string>& args, size_t idx, size_t count) {
    if (idx + count > args.size())
        throw CError("Error: missing argument");
}
} // namespace

long long parse_number(const std::vector<tk_string>& args, size_t idx,
                       boost::optional<long long> min, boost::optional<long long> max) {
    require_args(args, idx, 1);
    const long long lo = min.value_or(0);
    assert(lo >= 0);
    const char* text = args[idx].c_str();
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text, &end, 0);
    if (*text == '\0' || *end != '\0')
        throw CError("Error: invalid (non-numeric) argument '" + args[idx] + "'");
    if (value < lo)
        throw CError("Error: value '" + std::to_string(value) +
                     "' less than the allowed miniumum (" + std::to_string(lo) + ")");
    if (max && value > *max)
        throw CError("Error: value '" + std::to_string(value) +
                     "' greater than the allowed maximum (" + std::to_string(*max) + ")");
    return value;
}

COption::parse_func_t parse_bool(bool& field) {
    return [&field](const std::vector<tk_string>&, size_t) {
        field = true;
        return size_t(0);
    };
}

COption::parse_func_t parse_str(tk_string& field) {
    return [&field](const std::vector<tk_string>& args, size_t idx) {
        require_args(args, idx, 1);
        if (args[idx].empty())
            throw CError("Error: Invalid empty string");
        field = args[idx];
        return size_t(1);
    };
}

COption::parse_func_t parse_subsystem_verb_opt(subsystem_levels_t& levels) {
    return [&levels](const std::vector<tk_string>& args, size_t idx) {
        require_args(args, idx, 2);
        for (unsigned i = 0; i < SS_COUNT; ++i) {
            if (args[idx] == COptionsBase::subsystem_strings[i]) {
                levels[i] = static_cast<int32_t>(parse_number(args, idx + 1, 0, INT32_MAX));
                return size_t(2);
            }
        }
        tk_string text = "Unknown subsystem '" + args[idx] + "'\n\nAvailable subsystems:";
        for (const char* name : COptionsBase::subsystem_strings)
            text += "\n\t'" + tk_string(name) + "'";
        throw CError(text);
    };
}

COption::parse_func_t parse_end_opt() {
    return [](const std::vector<tk_string>&, size_t) -> size_t { throw COptionsBase::end_args(); };
}

COption::parse_func_t parse_help_opt() {
    return
        [](const std::vector<tk_string>&, size_t) -> size_t { throw COptionsBase::show_usage(); };
}

COption::parse_func_t parse_detailed_help_opt() {
    return [](const std::vector<tk_string>&, size_t) -> size_t {
        throw COptionsBase::show_detailed_usage();
    };
}

COption::parse_func_t parse_version_opt() {
    return
        [](const std::vector<tk_string>&, size_t) -> size_t { throw COptionsBase::dump_version(); };
}

COption::defaultval_func_t show_bool(const bool& field) {
    return [&field]() -> boost::optional<tk_string> { return tk_string(field ? "true" : "false"); };
}

} // namespace option_helpers
