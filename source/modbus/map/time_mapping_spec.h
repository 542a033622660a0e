#pragma once
// A date spec: one letter per byte of a register image, each naming a calendar
// field (UTC). A letter written twice in a row where a register starts fills the whole
// register with a 16-bit value.
//
//   d day of month   H hour        I hour of 12-hour clock   j day of year   m month
//   M minute         S second      u weekday 1-7, Monday 1   w weekday 0-6, Sunday 0
//   y year % 100     Y full year   q milliseconds            Q ms within the minute
//
// Reading back is not always the inverse: I gives 12 for 0 and 12, u gives 7 for 0, and Y
// stores the value as years since 1900 unchanged. Those are the device's rules.
#include "modbus/map/profile_mapping.h"
#include "modbus/modbus_types.h"

#include <sys/time.h>
#include <time.h>

#include <cstddef>

class CTimeMappingSpec {
public:
    // True when spec is not empty and every character is one of the letters above.
    static bool valid(const tk_string& spec);
    // Throws CError unless valid(spec).
    explicit CTimeMappingSpec(const tk_string& spec);
    virtual ~CTimeMappingSpec() = default;

    // Fills the row's date spec.
    virtual void reverse_map(CProfileMapping& row) const;

    size_t size() const { return _str.size(); }
    const tk_string& str() const { return _str; }

    // The value of the letter at `offset` for the time t (+ tv's microseconds).
    mbreg_t translate(size_t offset, const tm& t, const timeval& tv) const;
    // Stores value into the field of the letter at `offset`.
    void translate(size_t offset, mbreg_t value, tm& t, timeval& tv) const;
    // Whether the next letter repeats the one at `offset`.
    bool double_specifier(size_t offset) const;

private:
    tk_string _str;
};
