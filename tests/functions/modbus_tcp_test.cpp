#include "modbus_client.h"
#include "store/store_worker.h"
#include "support/server_fixture.h"
#include "support/test_client.h"

#include <boost/test/unit_test.hpp>
#include <sqlite3.h>

#include <chrono>
#include <thread>

namespace {

using toolkit::CElement;

std::vector<uint16_t> read_regs(modbus_t* ctx, int addr, int n, int function = 3) {
    std::vector<uint16_t> regs(static_cast<size_t>(n));
    const int rc = function == 3 ? modbus_read_registers(ctx, addr, n, regs.data())
                                 : modbus_read_input_registers(ctx, addr, n, regs.data());
    if (rc != n)
        regs.clear();
    return regs;
}

std::vector<uint8_t> read_bits(modbus_t* ctx, int addr, int n, int function = 1) {
    std::vector<uint8_t> bits(static_cast<size_t>(n));
    const int rc = function == 1 ? modbus_read_bits(ctx, addr, n, bits.data())
                                 : modbus_read_input_bits(ctx, addr, n, bits.data());
    if (rc != n)
        bits.clear();
    return bits;
}

// Sends a raw frame and returns the answer (n bytes expected).
std::vector<uint8_t> exchange(uint16_t port, const std::vector<uint8_t>& frame, size_t n) {
    CTestClient c(port);
    c.send(frame);
    return c.receive(n);
}

void zero_fill(CTestStore& store) {
    store.define("/Software/Data Servers/Modbus/Zero Fill Default/Value", CElement::TYPE_BOOL,
                 CElement::from_bool(true));
}

} // namespace

BOOST_AUTO_TEST_SUITE(modbus_tcp)

BOOST_AUTO_TEST_CASE(reads) {
    CServerFixture f;
    const bool finished = f.run_with([&] {
        auto ctx = tcp_client(f.port);
        BOOST_REQUIRE(ctx);
        const std::vector<uint16_t> expected{
            0x5550, 0x532D, 0x3330, 0x3030, 0x534E, 0x3132, 0x3334, 0x3500, 2300,   1250,  0x0001,
            0x1170, 0x424A, 0x0000, 0x0000, 0xC03F, 0xFFFB, 0x8000, 0x0080, 0x0012, 0x3456};
        BOOST_TEST(read_regs(ctx.get(), 0, 21) == expected, boost::test_tools::per_element());
        BOOST_TEST(read_regs(ctx.get(), 0, 21, 4) == expected, boost::test_tools::per_element());
        // A parameter straddling both edges of the request gives its inner registers.
        BOOST_TEST(read_regs(ctx.get(), 100, 2) == (std::vector<uint16_t>{0x636B, 0x2037}),
                   boost::test_tools::per_element());
        BOOST_TEST(read_regs(ctx.get(), 30, 3) == (std::vector<uint16_t>{0x00AA, 0x00BB, 0x00DD}),
                   boost::test_tools::per_element());
        // Unmapped addresses without zero fill.
        BOOST_TEST(read_regs(ctx.get(), 21, 1).empty());
        BOOST_TEST(exception_code() == 2);
        BOOST_TEST(read_regs(ctx.get(), 19, 4).empty());
        BOOST_TEST(exception_code() == 2);
        // Event registers answer, with the fixture's empty event slots.
        BOOST_TEST(read_regs(ctx.get(), 256, 9).size() == 9u);

        BOOST_TEST(read_bits(ctx.get(), 0, 3) == (std::vector<uint8_t>{1, 1, 0}),
                   boost::test_tools::per_element());
        BOOST_TEST(read_bits(ctx.get(), 0, 3, 2) == (std::vector<uint8_t>{1, 1, 0}),
                   boost::test_tools::per_element());
        BOOST_TEST(read_bits(ctx.get(), 10, 3).empty());
        BOOST_TEST(exception_code() == 2);

        // The second file of unit 1, and unit 2 over the shared file.
        BOOST_TEST(read_regs(ctx.get(), 200, 2) == (std::vector<uint16_t>{0x0001, 0xE240}),
                   boost::test_tools::per_element());
        auto unit2 = tcp_client(f.port, 2);
        BOOST_TEST(read_regs(unit2.get(), 0, 4) ==
                       (std::vector<uint16_t>{0x5550, 0x532D, 0x3135, 0x3030}),
                   boost::test_tools::per_element());
        BOOST_TEST(read_regs(unit2.get(), 200, 2).empty());
        BOOST_TEST(exception_code() == 2);
    });
    BOOST_TEST(finished);
}

BOOST_AUTO_TEST_CASE(writes) {
    CServerFixture f;
    const bool finished = f.run_with([&] {
        auto ctx = tcp_client(f.port);
        BOOST_REQUIRE(ctx);
        BOOST_TEST(modbus_write_register(ctx.get(), 8, 2400) == 1);
        // 0x0960 AND 0x00FF OR 0x0500 = 0x0560 = 1376: stored as 137, read as 1370.
        BOOST_TEST(modbus_mask_write_register(ctx.get(), 8, 0x00FF, 0x0500) == 1);
        // Report server id: the unit id, running, the program's name (the sample store has
        // no description).
        uint8_t id[8] = {};
        BOOST_TEST(modbus_report_slave_id(ctx.get(), sizeof id, id) > 2);
        BOOST_TEST(id[0] == 1u);
        BOOST_TEST(id[1] == 0xFFu);
        const uint16_t voltage[] = {2400};
        uint16_t back[2] = {};
        BOOST_TEST(modbus_write_and_read_registers(ctx.get(), 8, 1, voltage, 7, 2, back) == 2);
        BOOST_TEST(back[1] == 2400);
        BOOST_TEST(modbus_write_and_read_registers(ctx.get(), 9, 1, voltage, 8, 1, back) == -1);
        BOOST_TEST(exception_code() == 2);
        const uint16_t cycles[] = {0x0002, 0x0003};
        BOOST_TEST(modbus_write_registers(ctx.get(), 10, 2, cycles) == 2);
        // Half of a two-register parameter: nothing is written.
        BOOST_TEST(modbus_write_register(ctx.get(), 11, 5) == -1);
        BOOST_TEST(exception_code() == 2);
        // Read-only parameters.
        BOOST_TEST(modbus_write_register(ctx.get(), 9, 5) == -1);
        BOOST_TEST(exception_code() == 2);
        const uint16_t power[] = {1, 2};
        BOOST_TEST(modbus_write_registers(ctx.get(), 14, 2, power) == -1);
        BOOST_TEST(exception_code() == 2);
        // A time stamp cannot be written.
        const uint16_t stamp[] = {1, 2};
        BOOST_TEST(modbus_write_registers(ctx.get(), 26, 2, stamp) == -1);
        BOOST_TEST(exception_code() == 2);
        // Overlaps: only the parameter wholly inside the write.
        const uint16_t shifted[] = {0x0011, 0x0022};
        BOOST_TEST(modbus_write_registers(ctx.get(), 31, 2, shifted) == 2);

        BOOST_TEST(modbus_write_bit(ctx.get(), 2, 1) == 1);
        const uint8_t coils[] = {0, 1, 1, 1, 1, 0, 1, 1};
        BOOST_TEST(modbus_write_bits(ctx.get(), 0, 8, coils) == 8);
        BOOST_TEST(modbus_write_bit(ctx.get(), 4, 1) == -1);
        BOOST_TEST(exception_code() == 2);
    });
    BOOST_TEST(finished);
    BOOST_TEST(f.store.value("/Devices/UPS/Output/Voltage/Value").to_uint() == 240u);
    BOOST_TEST(f.store.value("/Devices/UPS/Battery/Charge Cycles/Value").to_uint() == 0x00020003u);
    BOOST_TEST(f.store.value("/Devices/UPS/Output/Current/Value").to_float() == 12.5);
    BOOST_TEST(f.store.value("/Devices/UPS/Overlap/Shifted/Value").to_uint() == 0x00110022u);
    BOOST_TEST(f.store.value("/Devices/UPS/Overlap/Wide/Value").to_uint() == 0x00AA00BBu);
    BOOST_TEST(f.store.value("/Devices/UPS/Battery/Low/Value").to_bool() == false);
    BOOST_TEST(f.store.value("/Devices/UPS/Breaker/Closed/Value").to_bool() == false);
    BOOST_TEST(f.store.value("/Devices/UPS/Relay/One/Value").to_bool() == false);
    BOOST_TEST(f.store.value("/Devices/UPS/Relay/Two/Value").to_bool() == false);
    BOOST_TEST(f.store.value("/Devices/UPS/Alarm/Overload/Value").to_bool() == false);
}

// A store that refuses the leaves of a write batch: exception 4, never an acknowledgement.
BOOST_AUTO_TEST_CASE(refused_writes_are_not_acknowledged) {
    CServerFixture f([](CTestStore& store) {
        store.define("/ReadOnlyCDS", CElement::TYPE_BOOL, CElement::from_bool(true));
    });
    const bool finished = f.run_with([&] {
        auto ctx = tcp_client(f.port);
        BOOST_REQUIRE(ctx);
        BOOST_TEST(modbus_write_register(ctx.get(), 8, 2400) == -1);
        BOOST_TEST(exception_code() == 4);
        BOOST_TEST(modbus_write_bit(ctx.get(), 2, 1) == -1);
        BOOST_TEST(exception_code() == 4);
        BOOST_TEST(read_regs(ctx.get(), 8, 1) == std::vector<uint16_t>{2300});
    });
    BOOST_TEST(finished);
    BOOST_TEST(f.store.value("/Devices/UPS/Output/Voltage/Value").to_uint() == 230u);
}

BOOST_AUTO_TEST_CASE(request_checks) {
    CServerFixture f(zero_fill);
    struct {
        std::vector<uint8_t> request;
        uint8_t code; // 0: a normal answer of `size` bytes
        size_t size;
    } cases[] = {
        {tcp_frame(1, 0x07, {}), 1, 0},
        {tcp_frame(1, 0x0C, {}), 1, 0},
        // Identification without leaves in the store: unit id, running; three empty objects.
        {tcp_frame(1, 0x11, {}), 0, 11},
        {tcp_frame(1, 0x2B, {0x0E, 1, 0}), 0, 20},
        {tcp_frame(1, 0x2B, {0x0E, 4, 9}), 2, 0},
        {tcp_frame(1, 0x2B, {0x0D, 1, 0}), 1, 0},
        {tcp_frame(9, 0x03, u16(0, 1)), 10, 0},
        {tcp_frame(1, 0x03, {0, 0, 0, 1, 0}), 1, 0},
        {tcp_frame(1, 0x03, u16(0, 125)), 0, 9 + 250},
        {tcp_frame(1, 0x03, u16(0, 126)), 3, 0},
        {tcp_frame(1, 0x03, u16(0, 0)), 3, 0},
        {tcp_frame(1, 0x03, u16(0xFFFF, 2)), 2, 0},
        {tcp_frame(1, 0x01, u16(0, 2000)), 0, 9 + 250},
        {tcp_frame(1, 0x01, u16(0, 2001)), 3, 0},
        {tcp_frame(1, 0x05, u16(2, 0x00FF)), 3, 0},
        {tcp_frame(1, 0x05, u16(2, 0xFF00)), 0, 12},
        {tcp_frame(1, 0x0F, {0, 0, 0, 10, 1, 0xFF}), 3, 0},
        {tcp_frame(1, 0x10, {0, 8, 0, 1, 3, 0, 1, 2}), 3, 0},
        {tcp_frame(1, 0x10, {0xFF, 0xFF, 0, 2, 4, 0, 1, 0, 2}), 2, 0},
        {tcp_frame(1, 0x0F, {0xFF, 0xFF, 0, 9, 2, 0xFF, 1}), 2, 0},
        // The echo of code 8 at the longest PDU, and one byte over it.
        {tcp_frame(1, 0x08, std::vector<uint8_t>(252, 0)), 0, 7 + 253},
        {tcp_frame(1, 0x08, std::vector<uint8_t>(253, 0)), 3, 0},
    };
    std::vector<uint8_t> regs121 = {0, 0, 0, 121, 242};
    regs121.resize(regs121.size() + 242, 0);
    std::vector<uint8_t> coils1969 = {0, 0, 0x07, 0xB1, 247};
    coils1969.resize(coils1969.size() + 247, 0);
    const bool finished = f.run_with([&] {
        for (const auto& c : cases) {
            const auto answer = exchange(f.port, c.request, c.code ? 9 : c.size);
            if (c.code)
                BOOST_TEST(answer == tcp_exception(c.request, c.code),
                           "function " << int(c.request[7]));
            else
                BOOST_TEST(answer.size() == c.size, "function " << int(c.request[7]));
        }
        // The ten-coil read: two bytes, the top six bits of the second clear.
        const auto bits = exchange(f.port, tcp_frame(1, 0x01, u16(0, 10)), 11);
        BOOST_REQUIRE(bits.size() == 11u);
        BOOST_TEST(bits[8] == 2);
        BOOST_TEST((bits[10] & 0xFC) == 0);
        BOOST_TEST(exchange(f.port, tcp_frame(1, 0x10, regs121), 9) ==
                   tcp_exception(tcp_frame(1, 0x10, regs121), 3));
        BOOST_TEST(exchange(f.port, tcp_frame(1, 0x0F, coils1969), 9) ==
                   tcp_exception(tcp_frame(1, 0x0F, coils1969), 3));
        // 120 registers pass the length check (the write then covers parameters only
        // partly, which is refused with code 2).
        auto ctx = tcp_client(f.port);
        const uint16_t many[120] = {};
        BOOST_TEST(modbus_write_registers(ctx.get(), 0, 120, many) == -1);
        BOOST_TEST(exception_code() == 2);
    });
    BOOST_TEST(finished);
}

BOOST_AUTO_TEST_CASE(framing_on_the_wire) {
    CServerFixture f;
    const bool finished = f.run_with([&] {
        const auto read8 = tcp_frame(1, 0x03, u16(8, 1));
        const std::vector<uint8_t> answer8{0, 7, 0, 0, 0, 5, 1, 3, 2, 0x08, 0xFC};
        // Split into pieces, then two requests in one segment.
        {
            CTestClient c(f.port);
            for (uint8_t byte : read8) {
                c.send(std::vector<uint8_t>{byte});
                std::this_thread::sleep_for(std::chrono::milliseconds(3));
            }
            BOOST_TEST(c.receive(11) == answer8);
            std::vector<uint8_t> two = read8;
            two.insert(two.end(), read8.begin(), read8.end());
            c.send(two);
            std::vector<uint8_t> both = answer8;
            both.insert(both.end(), answer8.begin(), answer8.end());
            BOOST_TEST(c.receive(22) == both);
        }
        // Another protocol id is dropped silently; the request behind it is answered.
        {
            CTestClient c(f.port);
            std::vector<uint8_t> frames = tcp_frame(1, 0x03, u16(8, 1), 1);
            frames.insert(frames.end(), read8.begin(), read8.end());
            c.send(frames);
            BOOST_TEST(c.receive(11) == answer8);
        }
        // A zero length field: exception 3 with the function of the previous request.
        {
            CTestClient c(f.port);
            c.send(read8);
            BOOST_TEST(c.receive(11) == answer8);
            c.send(std::vector<uint8_t>{0, 9, 0, 0, 0, 0, 1});
            BOOST_TEST(c.receive(9) == (std::vector<uint8_t>{0, 9, 0, 0, 0, 3, 1, 0x83, 3}));
        }
        // A length field of 1 (no function code) is dropped unanswered, and the request
        // behind it in the same segment is answered.
        {
            CTestClient c(f.port);
            std::vector<uint8_t> frames{0, 1, 0, 0, 0, 1, 1};
            frames.insert(frames.end(), read8.begin(), read8.end());
            c.send(frames);
            BOOST_TEST(c.receive(11) == answer8);
        }
        CTestClient after(f.port);
        after.send(read8);
        BOOST_TEST(after.receive(11) == answer8);
    });
    BOOST_TEST(finished);
}

BOOST_AUTO_TEST_CASE(block_writes_by_setting) {
    CServerFixture f([](CTestStore& s) {
        s.define("/Software/Data Servers/Modbus/Block Writes/Value", CElement::TYPE_BOOL,
                 CElement::from_bool(true));
    });
    const bool finished = f.run_with([&] {
        auto ctx = tcp_client(f.port);
        BOOST_REQUIRE(ctx);
        const uint16_t block[] = {0, 7, 0x4270, 0};
        BOOST_TEST(modbus_write_registers(ctx.get(), 10, 4, block) == 4);
        const uint16_t across_read_only[] = {2400, 1};
        BOOST_TEST(modbus_write_registers(ctx.get(), 8, 2, across_read_only) == -1);
        BOOST_TEST(exception_code() == 2);
    });
    BOOST_TEST(finished);
    BOOST_TEST(f.store.value("/Devices/UPS/Battery/Charge Cycles/Value").to_uint() == 7u);
    BOOST_TEST(f.store.value("/Devices/UPS/Input/Frequency/Value").to_float() == 60.0);
    BOOST_TEST(f.store.value("/Devices/UPS/Output/Voltage/Value").to_uint() == 230u);
}

BOOST_AUTO_TEST_CASE(store_too_slow) {
    CServerFixture f([](CTestStore& s) {
        s.define("/Software/Data Servers/Modbus/Interface Type/TCP/Timeout/Value",
                 CElement::TYPE_UINT, CElement::from_uint(100));
    });
    const bool finished = f.run_with([&] {
        auto ctx = tcp_client(f.port);
        BOOST_REQUIRE(ctx);
        // A write is made at once while the store is free.
        BOOST_TEST(modbus_write_register(ctx.get(), 8, 2400) == 1);
        // Another writer holds the store: reads still answer, a write waits on the store
        // worker and times out, and is not made late once the store is free again.
        sqlite3* other = nullptr;
        BOOST_REQUIRE(sqlite3_open(f.store.path().c_str(), &other) == SQLITE_OK);
        BOOST_REQUIRE(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) ==
                      SQLITE_OK);
        BOOST_TEST(read_regs(ctx.get(), 8, 1) == std::vector<uint16_t>{2400});
        BOOST_TEST(modbus_write_register(ctx.get(), 8, 2500) == -1);
        BOOST_TEST(exception_code() == 11);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
        sqlite3_close(other);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        BOOST_TEST(read_regs(ctx.get(), 8, 1) == std::vector<uint16_t>{2400});
        // A stalled store worker holds up no write either.
        f.core.worker()->run([](CCdsHandle&) {
            std::this_thread::sleep_for(std::chrono::milliseconds(400));
            return true;
        });
        BOOST_TEST(modbus_write_register(ctx.get(), 8, 2600) == 1);
        BOOST_TEST(read_regs(ctx.get(), 8, 1) == std::vector<uint16_t>{2600});
    });
    BOOST_TEST(finished);
}

BOOST_AUTO_TEST_SUITE_END()
