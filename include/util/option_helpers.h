#pragma once
// The standard parse, init and default-value functions that bind options to fields.
// Each returns a function object for COptionsBase::add_opt; the bound field must outlive
// the options object's parse call.
#include "util/options_base.h"

#include <boost/optional.hpp>

#include <cstdint>
#include <limits>

namespace option_helpers {

// Converts text with base detection (decimal, 0x hexadecimal, 0 octal); throws CError with
// the framework's message when it is not wholly a number or outside [min, max]. min
// defaults to 0 and must not be negative.
long long parse_number(const std::vector<tk_string>& args, size_t idx,
                       boost::optional<long long> min, boost::optional<long long> max);

template <class T>
COption::parse_func_t parse_int(T& field, boost::optional<long long> min = boost::none,
                                boost::optional<long long> max = boost::none,
                                boost::optional<long long> multiplier = boost::none) {
    return [&field, min, max, multiplier](const std::vector<tk_string>& args, size_t idx) {
        long long value = parse_number(args, idx, min, max);
        if (multiplier)
            value *= *multiplier;
        field = static_cast<T>(value);
        return size_t(1);
    };
}

template <class T>
COption::parse_func_t parse_int_opt(boost::optional<T>& field,
                                    boost::optional<long long> min = boost::none,
                                    boost::optional<long long> max = boost::none) {
    return [&field, min, max](const std::vector<tk_string>& args, size_t idx) {
        field = static_cast<T>(parse_number(args, idx, min, max));
        return size_t(1);
    };
}

COption::parse_func_t parse_bool(bool& field);
COption::parse_func_t parse_str(tk_string& field);
COption::parse_func_t parse_subsystem_verb_opt(subsystem_levels_t& levels);
COption::parse_func_t parse_end_opt();
COption::parse_func_t parse_help_opt();
COption::parse_func_t parse_detailed_help_opt();
COption::parse_func_t parse_version_opt();

template <class T, class V> COption::init_func_t init_single(T& field, V value) {
    return [&field, value]() { field = value; };
}

template <class T> COption::defaultval_func_t show_int(const T& field) {
    return [&field]() -> boost::optional<tk_string> { return std::to_string(field); };
}

template <class T> COption::defaultval_func_t show_int_opt(const boost::optional<T>& field) {
    return [&field]() -> boost::optional<tk_string> {
        if (!field)
            return boost::none;
        return std::to_string(*field);
    };
}

COption::defaultval_func_t show_bool(const bool& field);

} // namespace option_helpers
