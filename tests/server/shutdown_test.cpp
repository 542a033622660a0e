// The real server stopped by SIGTERM while eight clients read and write: requests are in
// flight in every stage (on the wire, queued for the CDS thread, being answered) when the
// event loop ends. It must exit cleanly; the sanitizer builds run the same case and fail on
// any report the server writes.
#include "data/sample_store.h"
#include "server_process.h"
#include "toolkit/cds_store.h"

#include <modbus/modbus.h>

#include <boost/test/unit_test.hpp>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using toolkit::CElement;

const char* const port_path =
    "/Software/System Settings/Network/Firewall Settings/Protocol/Modbus/Port/Value";
const char* const ups_path = "/Software/Device Handlers/UPS/Status/Value";

// One client: reads of registers and coils mixed with writes, until told to stop or the
// server goes away. Counts the answers it had.
void client_loop(uint16_t port, unsigned seed, const std::atomic<bool>& stop,
                 std::atomic<unsigned>& answers) {
    modbus_t* ctx = modbus_new_tcp("127.0.0.1", port);
    modbus_set_slave(ctx, 1);
    modbus_set_response_timeout(ctx, 2, 0);
    for (int i = 0; i < 100 && modbus_connect(ctx) != 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    uint16_t regs[20];
    uint8_t bits[4];
    for (unsigned n = seed; !stop; ++n) {
        int rc = 0;
        switch (n % 4) {
        case 0: rc = modbus_read_registers(ctx, 0, 20, regs); break;
        case 1: rc = modbus_write_register(ctx, 8, 2300); break;
        case 2: rc = modbus_read_input_registers(ctx, 10, 4, regs); break;
        default: rc = modbus_read_bits(ctx, 0, 2, bits); break;
        }
        if (rc < 0 && (errno == ECONNRESET || errno == EPIPE || errno == ETIMEDOUT ||
                       errno == EBADF || errno == ECONNREFUSED))
            break;
        if (rc >= 0)
            ++answers;
    }
    modbus_close(ctx);
    modbus_free(ctx);
}

} // namespace

BOOST_AUTO_TEST_SUITE(server_shutdown)

BOOST_AUTO_TEST_CASE(sigterm_under_load_exits_cleanly) {
    for (int round = 0; round < 3; ++round) {
        CTestStore store;
        load_sample_store(store);
        const uint16_t port = free_port();
        store.define(port_path, CElement::TYPE_UINT, CElement::from_uint(port));
        store.define(ups_path, CElement::TYPE_INT, CElement::from_int(1));
        CServerProcess server(store.dir(), {"-Ns"});

        std::atomic<bool> stop{false};
        std::atomic<unsigned> answers{0};
        std::vector<std::thread> clients;
        for (unsigned c = 0; c < 8; ++c)
            clients.emplace_back(client_loop, port, c, std::cref(stop), std::ref(answers));
        // Until every kind of request has been answered a few times, then a little longer.
        for (int i = 0; i < 500 && answers < 200; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        std::this_thread::sleep_for(std::chrono::milliseconds(100 * round));
        server.signal(SIGTERM);
        const int status = server.wait(10000);
        stop = true;
        for (auto& t : clients)
            t.join();
        BOOST_TEST(answers >= 200u, "round " << round << ": " << server.log());
        BOOST_TEST(status == 0, "round " << round << ": " << server.log());
    }
}

BOOST_AUTO_TEST_SUITE_END()
