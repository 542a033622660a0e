#pragma once
// One typed value of the data store, with its time stamp.
//
// An element is empty (no value) or holds a bool, a signed or unsigned integer, a float,
// a string or a time. Conversions between the kinds are lenient where a reader would
// expect them (a number's text, a bool's 0/1) and report failure where they cannot work.
#include "toolkit/tk_string.h"

#include <sys/time.h>

#include <cstdint>
#include <vector>

namespace toolkit {

class CElement {
public:
    enum type_t { TYPE_NONE, TYPE_BOOL, TYPE_INT, TYPE_UINT, TYPE_FLOAT, TYPE_STRING, TYPE_TIME };

    // The "no time" stamp: an element written with it is stamped by the store.
    static const timeval _invalid_time;

    CElement();
    CElement(const CElement& other, const timeval& stamp);
    CElement(CElement&& other, const timeval& stamp);
    CElement(const CElement&) = default;
    CElement(CElement&&) = default;
    CElement& operator=(const CElement&) = default;
    CElement& operator=(CElement&&) = default;

    static CElement from_bool(bool value, const timeval& stamp = _invalid_time);
    static CElement from_int(int64_t value, const timeval& stamp = _invalid_time);
    static CElement from_uint(uint64_t value, const timeval& stamp = _invalid_time);
    static CElement from_float(double value, const timeval& stamp = _invalid_time);
    static CElement from_string(const tk_string& value, const timeval& stamp = _invalid_time);
    static CElement from_time(const timeval& value, const timeval& stamp = _invalid_time);

    type_t type() const { return _type; }
    bool has_value() const { return _type != TYPE_NONE; }
    bool is_bool() const { return _type == TYPE_BOOL; }
    bool is_float() const { return _type == TYPE_FLOAT; }
    bool is_string() const { return _type == TYPE_STRING; }
    bool is_time() const { return _type == TYPE_TIME; }
    // Integer or float (a bool or a numeric text is not numeric).
    bool is_numeric() const;

    // Conversions; an empty element gives false / 0 / "" / the zero time. Integers convert
    // to each other by their two's complement bits, floats are truncated and clamped; bools
    // print as "true"/"false", floats in their shortest exact form, times as time_to_string.
    // A bool is read inline: coils are read thousands at a time.
    bool to_bool() const { return _type == TYPE_BOOL ? _num.b : converted_to_bool(); }
    int64_t to_int() const;
    uint64_t to_uint() const;
    double to_float() const;
    void to_string(tk_string& out) const;
    tk_string str() const;
    // A string element's own text, without a copy; empty for the other kinds.
    const tk_string& text() const { return _text; }
    timeval to_timeval() const;

    const timeval& time() const { return _stamp; }
    void set_time(const timeval& stamp) { _stamp = stamp; }

    // Splits text at every separator; empty pieces are dropped.
    static void split_string(std::vector<tk_string>& out, const tk_string& text, char separator);

    static bool is_invalid_time(const timeval& t) { return t.tv_sec == 0 && t.tv_usec == 0; }

    // The strict conversion a store applies when a value is written into a leaf of type
    // `to`: numbers must fit and texts must parse completely, otherwise false and `out` is
    // left alone. The stamp is kept.
    static bool convert(const CElement& in, type_t to, CElement& out);
    // "bool", "int", "uint", "float", "string", "time" (and "none").
    static const char* type_name(type_t type);
    static bool type_from_name(const tk_string& name, type_t& type);

    // Time as text: UTC, ISO 8601 with microseconds ("2024-05-01T12:00:00.250000Z").
    static tk_string time_to_string(const timeval& t);
    // Accepts the form above (fraction and "Z" optional) or a number of seconds.
    static bool time_from_string(const tk_string& text, timeval& t);

private:
    bool converted_to_bool() const;

    type_t _type = TYPE_NONE;
    union {
        bool b;
        int64_t i;
        uint64_t u;
        double f;
    } _num{};
    tk_string _text;
    timeval _tv{0, 0};
    timeval _stamp{0, 0};
};

} // namespace toolkit
