#include "modbus/protocol/serial/modbus_serial_adu.h"
#include "modbus_client.h"
#include "support/pty_peer.h"
#include "support/server_fixture.h"

#include <boost/test/unit_test.hpp>

namespace {

// A libmodbus RTU master on the test's end of the line, at the sample interface's settings.
modbus_ptr_t rtu_master(const std::string& device, int slave) {
    modbus_ptr_t ctx(modbus_new_rtu(device.c_str(), 19200, 'E', 8, 1));
    if (ctx) {
        modbus_set_slave(ctx.get(), slave);
        modbus_set_response_timeout(ctx.get(), 0, 400000);
        if (modbus_connect(ctx.get()) != 0)
            ctx.reset();
    }
    return ctx;
}

// A request frame with its CRC.
std::vector<uint8_t> rtu_frame(uint8_t slave, uint8_t function, const std::vector<uint8_t>& data) {
    CModbusSerialAdu adu;
    adu.address = slave;
    adu.pdu.function = function;
    adu.pdu.data = data;
    iobuf_t out;
    adu.serialize(out);
    return out;
}

// The line must be quiet for a moment before a request counts as a frame start.
void quiet_line() {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
}

} // namespace

BOOST_AUTO_TEST_SUITE(modbus_rtu)

BOOST_AUTO_TEST_CASE(requests_over_a_serial_line,
                     *boost::unit_test::precondition(CPtyPair::needed)) {
    CServerFixture f({}, true);
    const bool finished = f.run_with([&] {
        quiet_line();
        {
            auto ctx = rtu_master(f.pty->end_b(), 1);
            BOOST_REQUIRE(ctx);
            uint16_t regs[4] = {};
            BOOST_TEST(modbus_read_registers(ctx.get(), 0, 4, regs) == 4);
            BOOST_TEST(regs[3] == 0x3030);
            // The second slave of the interface.
            modbus_set_slave(ctx.get(), 17);
            BOOST_TEST(modbus_read_registers(ctx.get(), 0, 3, regs) == 3);
            BOOST_TEST(regs[2] == 2305);
            // A slave the interface does not serve gets no answer.
            modbus_set_slave(ctx.get(), 5);
            BOOST_TEST(modbus_read_registers(ctx.get(), 0, 1, regs) == -1);
            BOOST_TEST(errno == ETIMEDOUT);
        }
        CPtyPeer line(f.pty->end_b());
        BOOST_REQUIRE(line.ok());
        const auto read8 = rtu_frame(1, 0x03, {0, 8, 0, 1});
        // A write to address 0 reaches every slave that maps the register and is answered
        // by none; a read to address 0 is ignored.
        for (const auto& broadcast :
             {rtu_frame(0, 0x06, {0, 8, 0x09, 0x92}), rtu_frame(0, 0x03, {0, 8, 0, 1})}) {
            BOOST_TEST(line.send(broadcast));
            BOOST_TEST(line.silent_for(300));
        }
        BOOST_TEST(line.send(read8));
        BOOST_TEST(line.receive(7, 500) == rtu_frame(1, 0x03, {2, 0x09, 0x92}));
    });
    BOOST_TEST(finished);
    BOOST_TEST(f.store.value("/Devices/UPS/Output/Voltage/Value").to_uint() == 245u);
}

BOOST_AUTO_TEST_SUITE_END()
