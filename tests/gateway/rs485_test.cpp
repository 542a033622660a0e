// RS-485 set-up: the read-modify-write of the driver's settings through a stand-in for the
// driver's state, and a real pty, whose driver has no RS-485 settings; and the echo of a
// two-wire adapter, as it may come in pieces.
#include "io/serial/local_echo.h"
#include "io/serial/rs485.h"
#include "support/subsystem_log.h"

#include <boost/test/unit_test.hpp>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

struct CDriverState : CRs485::driver_t {
    serial_rs485 state;
    int get_rc = 0;
    int set_rc = 0;
    int sets = 0;

    CDriverState() { std::memset(&state, 0, sizeof state); }
    int get(serial_rs485& out) override {
        out = state;
        return get_rc;
    }
    int set(const serial_rs485& in) override {
        ++sets;
        if (set_rc == 0)
            state = in;
        return set_rc;
    }
};

CRs485::settings_t enabled(bool on_send, bool after_send, uint32_t before, uint32_t after) {
    CRs485::settings_t s;
    s.enabled = true;
    s.rts_on_send = on_send;
    s.rts_after_send = after_send;
    s.delay_before_ms = before;
    s.delay_after_ms = after;
    return s;
}

} // namespace

BOOST_AUTO_TEST_SUITE(rs485)

BOOST_AUTO_TEST_CASE(only_the_owned_fields_change) {
    CDriverState driver;
    // What the board's device tree set up stays: termination, receiving while sending, and
    // the addressing fields.
    driver.state.flags =
        SER_RS485_TERMINATE_BUS | SER_RS485_RX_DURING_TX | SER_RS485_RTS_AFTER_SEND;
    driver.state.addr_recv = 0x12;
    BOOST_TEST(CRs485::apply(driver, enabled(true, false, 5, 7), "/dev/ttyS1") == CRs485::APPLIED);
    BOOST_TEST(driver.state.flags == (SER_RS485_ENABLED | SER_RS485_RTS_ON_SEND |
                                      SER_RS485_TERMINATE_BUS | SER_RS485_RX_DURING_TX));
    BOOST_TEST(driver.state.delay_rts_before_send == 5u);
    BOOST_TEST(driver.state.delay_rts_after_send == 7u);
    BOOST_TEST(driver.state.addr_recv == 0x12);

    BOOST_TEST(CRs485::apply(driver, enabled(false, true, 0, 0), "/dev/ttyS1") == CRs485::APPLIED);
    BOOST_TEST((driver.state.flags & (SER_RS485_RTS_ON_SEND | SER_RS485_RTS_AFTER_SEND)) ==
               SER_RS485_RTS_AFTER_SEND);

    // Off (the default) leaves the driver alone.
    const int sets = driver.sets;
    BOOST_TEST(CRs485::apply(driver, CRs485::settings_t(), "/dev/ttyS1") == CRs485::OFF);
    BOOST_TEST(driver.sets == sets);
}

BOOST_AUTO_TEST_CASE(drivers_without_rs485_and_refusals) {
    CDriverState driver;
    driver.get_rc = ENOTTY;
    {
        CSubsystemLog log(SS_SERIAL_IO, 0);
        BOOST_TEST(CRs485::apply(driver, enabled(true, false, 0, 0), "/dev/ttyUSB0") ==
                   CRs485::UNSUPPORTED);
        const std::string text = log.text();
        BOOST_TEST(count_of(text, "\n") == 1u);
        BOOST_TEST(text.find("'/dev/ttyUSB0'") != std::string::npos);
        BOOST_TEST(text.find("RS-485") != std::string::npos);
    }
    BOOST_TEST(driver.sets == 0);

    driver.get_rc = 0;
    driver.set_rc = EINVAL;
    CSubsystemLog log(SS_SERIAL_IO, 0);
    BOOST_TEST(CRs485::apply(driver, enabled(true, false, 0, 0), "/dev/ttyS2") == CRs485::FAILED);
    BOOST_TEST(log.text().find("Couldn't set RS-485 mode on '/dev/ttyS2'") != std::string::npos);
}

BOOST_AUTO_TEST_CASE(a_pty_has_no_rs485_settings) {
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    BOOST_REQUIRE(master >= 0);
    BOOST_REQUIRE(::grantpt(master) == 0 && ::unlockpt(master) == 0);
    const int pty = ::open(::ptsname(master), O_RDWR | O_NOCTTY);
    BOOST_REQUIRE(pty >= 0);
    BOOST_TEST(CRs485::apply(pty, enabled(true, false, 1, 1), "pty") == CRs485::UNSUPPORTED);
    ::close(pty);
    ::close(master);
}

BOOST_AUTO_TEST_CASE(local_echo_in_pieces_and_differing) {
    CLocalEcho echo;
    const uint8_t sent[] = {5, 3, 0, 0, 0, 1, 0x84, 0x4e};
    echo.expect(sent, sizeof sent);
    bool mismatch = true;
    // The echo split over two reads, the slave's answer right behind it.
    BOOST_TEST(echo.strip(sent, 5, mismatch) == 5u);
    BOOST_TEST((!mismatch && echo.pending()));
    const uint8_t rest[] = {1, 0x84, 0x4e, 5, 3};
    BOOST_TEST(echo.strip(rest, sizeof rest, mismatch) == 3u);
    BOOST_TEST((!mismatch && !echo.pending()));
    // A byte that differs ends the echo there; it and what follows are the line's.
    echo.expect(sent, sizeof sent);
    const uint8_t collided[] = {5, 3, 0xff, 0};
    BOOST_TEST(echo.strip(collided, sizeof collided, mismatch) == 2u);
    BOOST_TEST((mismatch && !echo.pending()));
}

BOOST_AUTO_TEST_SUITE_END()
