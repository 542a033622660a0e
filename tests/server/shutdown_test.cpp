// The real server stopped by SIGTERM while eight clients read and write: requests are in
// flight in every stage (on the wire, queued for the CDS thread, being answered) when the
// event loop ends. It must exit cleanly; the sanitizer builds run the same case and fail on
// any report the server writes.
#include "server_process.h"

#include <boost/test/unit_test.hpp>

#include <atomic>
#include <thread>
#include <vector>

namespace {

// One client: reads of registers and coils mixed with writes, until told to stop or the
// server goes away. Counts the answers it had.
void client_loop(uint16_t port, unsigned seed, const std::atomic<bool>& stop,
                 std::atomic<unsigned>& answers) {
    const auto client = modbus_client(port);
    modbus_t* ctx = client.get();
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
}

} // namespace

BOOST_AUTO_TEST_SUITE(server_shutdown)

BOOST_AUTO_TEST_CASE(sigterm_under_load_exits_cleanly) {
    for (int round = 0; round < 3; ++round) {
        CServerStore s;
        CServerProcess server(s.store.dir(), {"-Ns"});

        std::atomic<bool> stop{false};
        std::atomic<unsigned> answers{0};
        std::vector<std::thread> clients;
        for (unsigned c = 0; c < 8; ++c)
            clients.emplace_back(client_loop, s.port, c, std::cref(stop), std::ref(answers));
        // Until every kind of request has been answered a few times, and more each round.
        eventually([&] { return answers >= 200u * (round + 1); });
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
