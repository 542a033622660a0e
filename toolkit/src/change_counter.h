#pragma once
// The change counter beside a store file ("<store>-changes"): 32 bits, big-endian, that
// every writer using this library bumps after it commits leaf changes. A reader that finds
// the word as it last saw it knows that no such writer has committed since, without asking
// SQLite (which takes file locks). The file is mapped shared, so reading the word is a plain
// memory load; readers only compare it for equality, so wrapping around is harmless.
//
// The first process to open the store creates the file with the store's mode and owner.
// When it cannot be created or mapped (a read-only folder), is_open() is false and the
// store's readers ask SQLite on every read instead.
#include "toolkit/tk_string.h"

#include <sys/types.h>

#include <cstdint>

namespace toolkit {

class CChangeCounter {
public:
    CChangeCounter() = default;
    ~CChangeCounter() { close(); }
    CChangeCounter(const CChangeCounter&) = delete;
    CChangeCounter& operator=(const CChangeCounter&) = delete;

    // Maps the counter of the store at store_path, creating it if needed. On failure
    // returns false and says why (naming the file).
    bool open(const tk_string& store_path, tk_string& why);
    void close();
    bool is_open() const { return _word != nullptr; }

    // The raw word as stored (compare for equality only); 0 when not open.
    uint32_t load() const { return _word ? __atomic_load_n(_word, __ATOMIC_ACQUIRE) : 0; }
    // Adds one, atomically against every process that maps the file. Call after a commit.
    // Returns the raw word stored, and the one it replaced in `replaced`: when that is the
    // word a reader last loaded, no other writer bumped in between. 0 when not open.
    uint32_t bump(uint32_t* replaced = nullptr);
    // Whether the counter's path still names the mapped file, whole. A stat(2) per call.
    bool current() const;

    static tk_string path_of(const tk_string& store_path) { return store_path + "-changes"; }

private:
    uint32_t* _word = nullptr;
    tk_string _path;
    dev_t _dev = 0;
    ino_t _ino = 0;
};

} // namespace toolkit
