#include "io/serial/rs485.h"

#include "util/log.h"

#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>

namespace {

class CTtyDriver : public CRs485::driver_t {
public:
    explicit CTtyDriver(int fd) : _fd(fd) {}
    int get(serial_rs485& state) override {
        return ::ioctl(_fd, TIOCGRS485, &state) == 0 ? 0 : errno;
    }
    int set(const serial_rs485& state) override {
        // The driver writes back what it made of the request; the caller's copy stays.
        serial_rs485 copy = state;
        return ::ioctl(_fd, TIOCSRS485, &copy) == 0 ? 0 : errno;
    }

private:
    int _fd;
};

void set_flag(serial_rs485& state, uint32_t flag, bool on) {
    state.flags = on ? (state.flags | flag) : (state.flags & ~flag);
}

} // namespace

CRs485::result_t CRs485::apply(driver_t& driver, const settings_t& settings,
                               const std::string& device) {
    if (!settings.enabled)
        return OFF;
    serial_rs485 state;
    std::memset(&state, 0, sizeof state);
    int rc = driver.get(state);
    // ENOTTY from a driver without RS-485 support; ENOSYS where the ioctl itself is unknown
    // (an emulator's, for instance).
    if (rc == ENOTTY || rc == ENOSYS) {
        LOG_INFO(SS_SERIAL_IO, 0,
                 "'%s': the driver has no RS-485 settings (an adapter that switches the line "
                 "itself); RS485 left to the hardware",
                 device.c_str());
        return UNSUPPORTED;
    }
    if (rc == 0) {
        set_flag(state, SER_RS485_ENABLED, true);
        set_flag(state, SER_RS485_RTS_ON_SEND, settings.rts_on_send);
        set_flag(state, SER_RS485_RTS_AFTER_SEND, settings.rts_after_send);
        state.delay_rts_before_send = settings.delay_before_ms;
        state.delay_rts_after_send = settings.delay_after_ms;
        rc = driver.set(state);
    }
    if (rc != 0) {
        LOG_ERR(SS_SERIAL_IO, 0, "Couldn't set RS-485 mode on '%s': %s", device.c_str(),
                std::strerror(rc));
        return FAILED;
    }
    LOG_INFO(SS_SERIAL_IO, 2,
             "'%s': RS-485 on, RTS %s while sending and %s after, delays %u ms before and %u ms "
             "after",
             device.c_str(), settings.rts_on_send ? "high" : "low",
             settings.rts_after_send ? "high" : "low", settings.delay_before_ms,
             settings.delay_after_ms);
    return APPLIED;
}

CRs485::result_t CRs485::apply(int fd, const settings_t& settings, const std::string& device) {
    CTtyDriver driver(fd);
    return apply(driver, settings, device);
}
