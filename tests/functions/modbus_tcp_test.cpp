// Requests over TCP through the whole server: the MBAP framing, the unit a request goes to,
// and the store behind it. What each function answers is decided, and tested, in the core
// suite.
#include "modbus_client.h"
#include "store/store_worker.h"
#include "support/server_fixture.h"
#include "support/test_client.h"
#include "support/wait.h"

#include <boost/test/unit_test.hpp>
#include <sqlite3.h>

namespace {

using toolkit::CElement;

std::vector<uint16_t> read_regs(modbus_t* ctx, int addr, int n) {
    std::vector<uint16_t> regs(static_cast<size_t>(n));
    if (modbus_read_registers(ctx, addr, n, regs.data()) != n)
        regs.clear();
    return regs;
}

const char* const voltage = "/Devices/UPS/Output/Voltage/Value";

} // namespace

BOOST_AUTO_TEST_SUITE(modbus_tcp)

BOOST_AUTO_TEST_CASE(requests_reach_their_unit_and_the_store) {
    CServerFixture f([](CTestStore& s) {
        s.define("/Software/Data Servers/Modbus/Block Writes/Value", CElement::TYPE_BOOL,
                 CElement::from_bool(true));
    });
    const bool finished = f.run_with([&] {
        auto ctx = tcp_client(f.port);
        BOOST_REQUIRE(ctx);
        BOOST_TEST(read_regs(ctx.get(), 8, 2) == (std::vector<uint16_t>{2300, 1250}),
                   boost::test_tools::per_element());
        // Unit 2 maps the same file onto another device.
        auto unit2 = tcp_client(f.port, 2);
        BOOST_TEST(read_regs(unit2.get(), 0, 4) ==
                       (std::vector<uint16_t>{0x5550, 0x532D, 0x3135, 0x3030}),
                   boost::test_tools::per_element());
        BOOST_TEST(read_regs(ctx.get(), 21, 1).empty());
        BOOST_TEST(exception_code() == 2);
        BOOST_TEST(modbus_write_register(ctx.get(), 8, 2400) == 1);
        const uint8_t coils[] = {0, 1, 1, 1, 1, 0, 1, 1};
        BOOST_TEST(modbus_write_bits(ctx.get(), 0, 8, coils) == 8);
        // With Block Writes, a write may span parameters.
        const uint16_t block[] = {0, 7, 0x4270, 0};
        BOOST_TEST(modbus_write_registers(ctx.get(), 10, 4, block) == 4);
    });
    BOOST_TEST(finished);
    BOOST_TEST(f.store.value("/Devices/UPS/Input/Frequency/Value").to_float() == 60.0);
    BOOST_TEST(f.store.value(voltage).to_uint() == 240u);
    BOOST_TEST(f.store.value("/Devices/UPS/Battery/Low/Value").to_bool() == false);
    BOOST_TEST(f.store.value("/Devices/UPS/Relay/One/Value").to_bool() == false);
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
        BOOST_TEST(read_regs(ctx.get(), 8, 1) == std::vector<uint16_t>{2300});
    });
    BOOST_TEST(finished);
    BOOST_TEST(f.store.value(voltage).to_uint() == 230u);
}

BOOST_AUTO_TEST_CASE(framing_on_the_wire) {
    CServerFixture f;
    const bool finished = f.run_with([&] {
        const auto read8 = tcp_frame(1, 0x03, u16(8, 1));
        const std::vector<uint8_t> answer8{0, 7, 0, 0, 0, 5, 1, 3, 2, 0x08, 0xFC};
        // Split into pieces, then two requests in one segment.
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
        // Another protocol id, and a length field of 1 (no function code), are dropped
        // unanswered; the request behind each in the same segment is answered.
        for (const std::vector<uint8_t>& dropped :
             {tcp_frame(1, 0x03, u16(8, 1), 1), std::vector<uint8_t>{0, 1, 0, 0, 0, 1, 1}}) {
            std::vector<uint8_t> frames = dropped;
            frames.insert(frames.end(), read8.begin(), read8.end());
            c.send(frames);
            BOOST_TEST(c.receive(11) == answer8);
        }
        // A zero length field: exception 3 with the function of the previous request.
        c.send(std::vector<uint8_t>{0, 9, 0, 0, 0, 0, 1});
        BOOST_TEST(c.receive(9) == (std::vector<uint8_t>{0, 9, 0, 0, 0, 3, 1, 0x83, 3}));
        // A unit the server does not have.
        const auto unit9 = tcp_frame(9, 0x03, u16(0, 1));
        c.send(unit9);
        BOOST_TEST(c.receive(9) == tcp_exception(unit9, 10));
        // The echo of code 8 at the longest PDU, and one byte over it.
        c.send(tcp_frame(1, 0x08, std::vector<uint8_t>(252, 0)));
        BOOST_TEST(c.receive(7 + 253).size() == 7u + 253u);
        const auto longer = tcp_frame(1, 0x08, std::vector<uint8_t>(253, 0));
        c.send(longer);
        BOOST_TEST(c.receive(9) == tcp_exception(longer, 3));
    });
    BOOST_TEST(finished);
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
        sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
        sqlite3_close(other);
        BOOST_TEST(eventually([&] { return f.core.worker()->queued_writes() == 0; }));
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
