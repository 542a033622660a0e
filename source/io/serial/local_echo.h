#pragma once
// Two-wire RS-485 adapters that hear themselves hand back every byte written. After a write,
// exactly those bytes are expected first in what is read, and dropped; the bytes that follow
// are the line's. An echo that differs from what was sent (a collision, or an adapter that
// does not echo after all) is a line error: the expectation ends there and the byte that
// differed is kept for the line.
#include <cstddef>
#include <cstdint>
#include <vector>

class CLocalEcho {
public:
    // The bytes just written.
    void expect(const uint8_t* data, size_t size) {
        _expected.assign(data, data + size);
        _matched = 0;
    }
    void clear() { _expected.clear(); }
    bool pending() const { return _matched < _expected.size(); }

    // How many of the n bytes read at data are echo, to be dropped; mismatch is set when an
    // echo byte differed from what was written.
    size_t strip(const uint8_t* data, size_t n, bool& mismatch) {
        mismatch = false;
        size_t i = 0;
        while (i < n && _matched < _expected.size()) {
            if (data[i] != _expected[_matched]) {
                mismatch = true;
                _expected.clear();
                _matched = 0;
                break;
            }
            ++i;
            ++_matched;
        }
        return i;
    }

private:
    std::vector<uint8_t> _expected;
    size_t _matched = 0;
};
