#pragma once
// RS-485 on Linux: a line driver that switches the transceiver itself, driven by RTS, is told
// so through the serial driver's RS-485 settings (TIOCGRS485 / TIOCSRS485). The settings are
// read, the fields this server owns are changed, and the rest (bus termination, addressing,
// receive during send) is written back as the driver had it.
//
// Drivers without RS-485 support answer ENOTTY (ENOSYS under an emulator that does not know
// the ioctl): USB adapters and PC UARTs whose transceiver switches in hardware. That is
// normal and worth one info line, not an error.
#include <linux/serial.h>

#include <cstdint>
#include <string>

class CRs485 {
public:
    struct settings_t {
        bool enabled = false;
        // The RTS level while sending, and after.
        bool rts_on_send = true;
        bool rts_after_send = false;
        // Milliseconds RTS is set before the first byte, and kept after the last.
        uint32_t delay_before_ms = 0;
        uint32_t delay_after_ms = 0;
    };

    // Where the driver's RS-485 state lives: the port (ioctl), or a test's stand-in. Each
    // returns 0 or the errno of the failure.
    class driver_t {
    public:
        virtual ~driver_t() = default;
        virtual int get(serial_rs485& state) = 0;
        virtual int set(const serial_rs485& state) = 0;
    };

    enum result_t { OFF, APPLIED, UNSUPPORTED, FAILED };

    // Applies settings (when enabled) to the driver of device (named in the messages).
    static result_t apply(driver_t& driver, const settings_t& settings, const std::string& device);
    // apply() through the ioctls of an open port.
    static result_t apply(int fd, const settings_t& settings, const std::string& device);
};
