// The real modbus_server while its store file is replaced or removed under it.
#include "server/server_process.h"
#include "toolkit/cds_store.h"

#include <modbus/modbus.h>

#include <boost/test/unit_test.hpp>

#include <cerrno>
#include <cstdio>

namespace {

// Writes register 8 of unit 1 (the UPS's output voltage in tenths of a volt); 0 when
// acknowledged, else the exception code (-1: no answer).
int write_voltage(uint16_t port, uint16_t value) {
    modbus_t* ctx = modbus_new_tcp("127.0.0.1", port);
    modbus_set_slave(ctx, 1);
    modbus_set_response_timeout(ctx, 2, 0);
    int result = -1;
    if (modbus_connect(ctx) == 0) {
        if (modbus_write_register(ctx, 8, value) == 1)
            result = 0;
        else if (errno > MODBUS_ENOBASE && errno < MODBUS_ENOBASE + 12)
            result = errno - MODBUS_ENOBASE;
    }
    modbus_close(ctx);
    modbus_free(ctx);
    return result;
}

} // namespace

BOOST_AUTO_TEST_SUITE(cds_store_server)

BOOST_AUTO_TEST_CASE(no_write_is_acknowledged_into_a_store_that_is_not_at_its_path) {
    CServerStore s;
    std::vector<toolkit::CLeafInfo> leaves;
    BOOST_REQUIRE_EQUAL(s.store.store().list("/", leaves), 0);
    CServerProcess server(s.store.dir(), {"-Ns"});
    BOOST_REQUIRE(eventually([&] { return write_voltage(s.port, 2410) == 0; }));

    // A copy of the store renamed over it, while the server's -wal file stays beside it.
    const tk_string copy = s.store.dir().file("copy.db");
    {
        tk_string error;
        BOOST_REQUIRE_MESSAGE(toolkit::CCdsStore::create(copy, error) == 0, error);
        toolkit::CCdsStore other;
        BOOST_REQUIRE_EQUAL(other.open(copy), 0);
        BOOST_REQUIRE_EQUAL(other.define(leaves), 0);
    }
    BOOST_REQUIRE_EQUAL(std::rename(copy.c_str(), s.store.path().c_str()), 0);
    BOOST_TEST(write_voltage(s.port, 2420) == 0);
    BOOST_TEST(fresh_look(s.store.path(), "/Devices/UPS/Output/Voltage/Value") == "242 ok");
    BOOST_TEST(has_text(server.log(), "was replaced by another file"), server.log());

    // Removed: writes are refused with exception 4 (slave device failure), and so are reads.
    BOOST_REQUIRE_EQUAL(::unlink(s.store.path().c_str()), 0);
    BOOST_TEST(write_voltage(s.port, 2430) == MODBUS_EXCEPTION_SLAVE_OR_SERVER_FAILURE);
    BOOST_TEST(has_text(server.log(), "is gone"), server.log());
}

BOOST_AUTO_TEST_SUITE_END()
