#pragma once
// C-style entry points and scalar types of the data-store client library.
#include "toolkit/tk_string.h"

#include <cstdint>

// Per-leaf status of a store access. 1 is success; the other values name the failure.
typedef int api_status_t;
enum : api_status_t {
    API_STATUS_NONE = 0,
    API_STATUS_OK = 1,
    API_STATUS_NOT_FOUND = 2, // no such leaf (or node without children for "/Children")
    API_STATUS_BAD_VALUE = 3, // the value cannot be converted to the leaf's type
    API_STATUS_READ_ONLY = 4, // the connection is read-only
    API_STATUS_FAILURE = 5,   // any other failure of this leaf
};

// Property/source word stored with every value.
typedef uint32_t element_property_t;

// Three-valued flag passed per leaf with a write (2: indeterminate).
typedef int kvr_tribool_t;
enum : kvr_tribool_t { KVR_FALSE = 0, KVR_TRUE = 1, KVR_INDETERMINATE = 2 };

struct kvr_connection;
typedef kvr_connection* kvr_handle_t;

// Opens the store named by CDS_STORE (default /var/lib/cds/store.db). Returns 0 on
// failure; kvr_last_error() then says why, naming the path.
kvr_handle_t kvr_init(int flags);
void kvr_close(kvr_handle_t handle);
// The reason for the calling thread's last failed kvr_init or kvr_log_init.
const char* kvr_last_error();
// The path kvr_init opens.
tk_string kvr_store_path();

// Units known to the store. 95 means "no units"; -1 is returned for an unknown text.
enum : int { KVR_UNITS_NONE = 95, KVR_UNITS_UNKNOWN = -1 };
int kvr_units_str_to_enum(const char* text);
// The text of a unit number; null for an unknown number.
const char* kvr_units_enum_to_str(int units);
// The factor that turns a value in units `from` into units `to`; 0.0 when they do not
// convert by a factor (other dimension, unknown, or offset scales such as degrees C and F).
double kvr_units_conversion_ratio(int from, int to);
