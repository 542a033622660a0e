#pragma once
// Takes typed values off the front of a fuzz input; past its end every value is 0 or
// empty, so a target never has to check how much is left before it asks.
#include <cstddef>
#include <cstdint>
#include <string>

class CFuzzInput {
public:
    CFuzzInput(const uint8_t* data, size_t size) : _data(data), _size(size) {}

    bool empty() const { return _pos >= _size; }
    size_t left() const { return _pos < _size ? _size - _pos : 0; }
    uint8_t u8() { return _pos < _size ? _data[_pos++] : 0; }
    // Big-endian, as on the wire.
    uint16_t u16() {
        const uint16_t hi = u8();
        return static_cast<uint16_t>(hi << 8 | u8());
    }
    uint32_t u32() {
        const uint32_t hi = u16();
        return hi << 16 | u16();
    }
    uint64_t u64() {
        const uint64_t hi = u32();
        return hi << 32 | u32();
    }
    // One of n choices (n > 0).
    size_t pick(size_t n) { return u8() % n; }
    // A text of at most max bytes: its length byte, then its bytes.
    std::string text(size_t max) {
        size_t n = u8() % (max + 1);
        if (n > left())
            n = left();
        std::string s(reinterpret_cast<const char*>(_data + _pos), n);
        _pos += n;
        return s;
    }

private:
    const uint8_t* _data;
    size_t _size;
    size_t _pos = 0;
};
