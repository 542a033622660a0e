#pragma once
// Notices to systemd for a Type=notify service ("READY=1" once serving, "WATCHDOG=1" while
// alive) through its notify socket protocol: one datagram of "KEY=VALUE" lines to the
// AF_UNIX socket that $NOTIFY_SOCKET names, a path or, with a leading '@', an abstract name.
// No libsystemd: the device has none.
#include <atomic>
#include <chrono>
#include <string>
#include <string_view>

class CSystemdNotify {
public:
    // Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID of the environment once.
    CSystemdNotify();

    // True when started by systemd with a notify socket.
    bool enabled() const { return !_socket.empty(); }
    // Sends `state`; false when not enabled or the datagram could not be sent (the first
    // failure is logged). Never throws.
    bool notify(std::string_view state) const noexcept;
    // systemd's watchdog time-out for this process (WATCHDOG_USEC, when WATCHDOG_PID is unset
    // or names this process); zero when there is none or it is malformed.
    std::chrono::microseconds watchdog_interval() const { return _watchdog; }

private:
    std::string _socket;
    std::chrono::microseconds _watchdog{0};
    mutable std::atomic<bool> _failure_logged{false};
};
