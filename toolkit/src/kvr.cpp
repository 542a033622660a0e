#include "toolkit/kvr.h"

#include "store_connection.h"
#include "store_file.h"

#include <cstdlib>

namespace {

thread_local tk_string t_last_error;

} // namespace

namespace toolkit {

void set_last_error(const tk_string& text) {
    t_last_error = text;
}

} // namespace toolkit

tk_string kvr_store_path() {
    const char* env = std::getenv("CDS_STORE");
    return env && *env ? tk_string(env) : tk_string("/var/lib/cds/store.db");
}

kvr_handle_t kvr_init(int /*flags*/) {
    kvr_handle_t handle = new kvr_connection;
    tk_string error;
    if (!handle->open(kvr_store_path(), error)) {
        delete handle;
        t_last_error = error;
        return nullptr;
    }
    return handle;
}

void kvr_close(kvr_handle_t handle) {
    delete handle;
}

const char* kvr_last_error() {
    return t_last_error.c_str();
}
