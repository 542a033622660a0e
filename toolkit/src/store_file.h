#pragma once
// Opening and creating store files. One schema serves the data store and the event log,
// so either may live in the same file or in files of their own.
#include "sqlite_db.h"
#include "toolkit/cds.h"

namespace toolkit {

// Bumped whenever the tables change in a way older readers would misread.
const int64_t k_schema_version = 1;

// How long a writer waits for another writer before its transaction fails.
const int k_busy_timeout_ms = CCds::busy_wait_ms;

// Opens an existing store file and checks its schema. Nothing in the file is changed.
// On failure returns false with a message that names the path and the reason.
bool open_store_file(CSqliteDb& db, const tk_string& path, tk_string& error);

// Creates a new store file (which must not exist yet) holding the empty schema.
bool create_store_file(CSqliteDb& db, const tk_string& path, tk_string& error);

// Whether a statement that finds the store locked waits (up to k_busy_timeout_ms) or fails
// at once with SQLITE_BUSY. Connections wait unless told otherwise.
void set_busy_wait(CSqliteDb& db, bool wait);

// Sets what kvr_last_error() returns in the calling thread.
void set_last_error(const tk_string& text);

} // namespace toolkit
