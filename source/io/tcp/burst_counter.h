#pragma once
// Counts an event that may repeat many times a second (a refused connection, a failed accept)
// so that it is logged once per burst: the first event of a burst is told, the others are
// only counted until the caller ends the burst, when the count can be told.
#include <cstdint>

class CBurstCounter {
public:
    // True for the first event of a burst, the one to tell.
    bool hit() { return ++_count == 1; }
    // Ends the burst; the number of its events, 0 when there was none.
    uint64_t end() {
        const uint64_t n = _count;
        _count = 0;
        return n;
    }

private:
    uint64_t _count = 0;
};
