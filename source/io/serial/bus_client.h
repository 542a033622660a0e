#pragma once
// What the master side of a serial line (CSerialMaster) asks of the code that decides what
// goes on the bus, and what it tells it. The client never calls the port: the port asks it
// for the next frame whenever the bus is free, and tells it how the exchange ended.
//
//   next()              the bus is free: the frame to send now (none: the port waits until
//                       woken). Its bytes stay valid until the exchange has ended.
//   answer_length()     how long the answer that starts with these bytes is (0: not known
//                       yet; by_silence: its end is the silence after it)
//   answered()          a whole answer frame came (whether it is any good is the client's to
//                       judge); the next frame follows after the bus's silence
//   no_answer()         nothing came within the frame's time-out
//   unavailable()       the port is closed for good (it could not be opened, or failed): no
//                       frame will be sent any more
//
// A frame without an answer (a broadcast) is followed by its rest instead. The client wakes
// the port (its waker, set by the port) when it has a frame after next() had none; the port
// calls next() later, never from inside the wake. Everything runs on the I/O thread.
#include <cstddef>
#include <cstdint>
#include <functional>

class CBusClient {
public:
    struct frame_t {
        const uint8_t* data = nullptr; // null: nothing to send
        size_t size = 0;
        // An answer is awaited for timeout_ms from the frame's end on the wire; without one
        // the bus rests for rest_ms after it.
        bool answer = true;
        uint32_t timeout_ms = 0;
        uint32_t rest_ms = 0;
    };
    static constexpr size_t by_silence = static_cast<size_t>(-1);

    CBusClient() = default;
    CBusClient(const CBusClient&) = delete;
    CBusClient& operator=(const CBusClient&) = delete;
    virtual ~CBusClient() = default;

    virtual frame_t next() = 0;
    virtual size_t answer_length(const uint8_t* data, size_t n) const = 0;
    // response_us: from the frame's first byte written to the answer's last byte read.
    virtual void answered(const uint8_t* data, size_t n, int64_t response_us) = 0;
    virtual void no_answer() = 0;
    virtual void unavailable() = 0;

    void set_waker(std::function<void()> waker) { _waker = std::move(waker); }

protected:
    void wake() const {
        if (_waker)
            _waker();
    }

private:
    std::function<void()> _waker;
};
