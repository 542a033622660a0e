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

BOOST_AUTO_TEST_CASE(requests_over_a_serial_line) {
    if (!CPtyPair::socat_available()) {
        BOOST_TEST_MESSAGE("socat is not installed; serial requests not tested");
        return;
    }
    CServerFixture f({}, true);
    const bool finished = f.run_with([&] {
        quiet_line();
        {
            auto ctx = rtu_master(f.pty->end_b(), 1);
            BOOST_REQUIRE(ctx);
            uint16_t regs[4] = {};
            BOOST_TEST(modbus_read_registers(ctx.get(), 0, 4, regs) == 4);
            BOOST_TEST(regs[0] == 0x5550);
            BOOST_TEST(regs[3] == 0x3030);
            quiet_line();
            BOOST_TEST(modbus_write_register(ctx.get(), 8, 2410) == 1);
            quiet_line();
            // Mask write (0x096A AND 0xFF00 OR 0x0002 = 0x0902 = 2306), then read/write.
            BOOST_TEST(modbus_mask_write_register(ctx.get(), 8, 0xFF00, 0x0002) == 1);
            quiet_line();
            const uint16_t to_write[1] = {2420};
            BOOST_TEST(modbus_write_and_read_registers(ctx.get(), 8, 1, to_write, 8, 2, regs) == 2);
            BOOST_TEST(regs[0] == 2420);
            quiet_line();
            uint8_t bits[3] = {};
            BOOST_TEST(modbus_read_bits(ctx.get(), 0, 3, bits) == 3);
            BOOST_TEST(bits[2] == 0);
            quiet_line();
            // Data errors are answered with exceptions.
            BOOST_TEST(modbus_read_registers(ctx.get(), 21, 1, regs) == -1);
            BOOST_TEST(exception_code() == 2);
            quiet_line();
            // The second slave of the interface.
            modbus_set_slave(ctx.get(), 17);
            BOOST_TEST(modbus_read_registers(ctx.get(), 0, 3, regs) == 3);
            BOOST_TEST(regs[1] == 0xE240);
            BOOST_TEST(regs[2] == 2305);
            quiet_line();
            // A slave the interface does not serve gets no answer.
            modbus_set_slave(ctx.get(), 5);
            BOOST_TEST(modbus_read_registers(ctx.get(), 0, 1, regs) == -1);
            BOOST_TEST(errno == ETIMEDOUT);
        }
        CPtyPeer line(f.pty->end_b());
        BOOST_REQUIRE(line.ok());
        const auto read8 = rtu_frame(1, 0x03, {0, 8, 0, 1});
        const auto answer8 = rtu_frame(1, 0x03, {2, 0x09, 0x74}); // 2420
        quiet_line();
        // A bad CRC, an unsupported function: silence.
        auto bad = read8;
        bad.back() ^= 0xFF;
        BOOST_TEST(line.send(bad));
        BOOST_TEST(line.receive(5, 200).empty());
        quiet_line();
        BOOST_TEST(line.send(rtu_frame(1, 0x07, {})));
        BOOST_TEST(line.receive(5, 200).empty());
        quiet_line();
        // A request in separate writes is served once complete.
        BOOST_TEST(line.send(std::vector<uint8_t>(read8.begin(), read8.begin() + 2)));
        BOOST_TEST(line.send(std::vector<uint8_t>(read8.begin() + 2, read8.end())));
        BOOST_TEST(line.receive(answer8.size(), 500) == answer8);
        quiet_line();
        // A write-multiple request is held until its announced bytes are there. Pieces must
        // follow each other within 1.5 characters (0.86 ms), so they are sent without a pause.
        const auto write = rtu_frame(1, 0x10, {0, 8, 0, 1, 2, 0x09, 0x60});
        BOOST_TEST(line.send(std::vector<uint8_t>(write.begin(), write.begin() + 4)));
        BOOST_TEST(line.send(std::vector<uint8_t>(write.begin() + 4, write.end())));
        BOOST_TEST(line.receive(8, 500) == rtu_frame(1, 0x10, {0, 8, 0, 1}));
        quiet_line();
        // Exceptions carry a fresh CRC.
        BOOST_TEST(line.send(rtu_frame(1, 0x03, {0, 0, 0, 126})));
        BOOST_TEST(line.receive(5, 500) == rtu_frame(1, 0x83, {3}));
        // A byte count beyond the data, under a good CRC, and a truncated request: each is
        // dropped at the next silence, and the requests after it are served.
        const auto answer_written = rtu_frame(1, 0x03, {2, 0x09, 0x60});
        for (const std::vector<uint8_t>& broken :
             {std::vector<uint8_t>{0x01, 0x10, 0x00, 0x00, 0x00, 0x02, 0xC8, 0x00, 0x01, 0x00, 0x02,
                                   0x33, 0xBE},
              std::vector<uint8_t>{0x01, 0x03, 0x00}}) {
            quiet_line();
            BOOST_TEST(line.send(broken));
            for (int i = 0; i < 3; ++i) {
                quiet_line();
                BOOST_TEST(line.send(read8));
                BOOST_TEST(line.receive(answer_written.size(), 500) == answer_written);
            }
        }
        // A write to address 0 reaches every slave that maps the register and is answered
        // by none; a read to address 0 is ignored.
        quiet_line();
        BOOST_TEST(line.send(rtu_frame(0, 0x06, {0, 8, 0x09, 0x92})));
        BOOST_TEST(line.receive(1, 300).empty());
        quiet_line();
        BOOST_TEST(line.send(rtu_frame(0, 0x03, {0, 8, 0, 1})));
        BOOST_TEST(line.receive(1, 300).empty());
        quiet_line();
        BOOST_TEST(line.send(read8));
        BOOST_TEST(line.receive(answer_written.size(), 500) == rtu_frame(1, 0x03, {2, 0x09, 0x92}));
    });
    BOOST_TEST(finished);
    BOOST_TEST(f.store.value("/Devices/UPS/Output/Voltage/Value").to_uint() == 245u);
}

BOOST_AUTO_TEST_SUITE_END()
