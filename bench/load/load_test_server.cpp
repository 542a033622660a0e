// A small Modbus TCP server for the load client's own test: 10000 registers and 10000 coils
// on 127.0.0.1, any number of clients. Prints the port it listens on, then serves until the
// given number of seconds has passed.
#include <modbus.h>

#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 10;
    modbus_t* ctx = modbus_new_tcp("127.0.0.1", 0);
    modbus_mapping_t* map = modbus_mapping_new(10000, 0, 10000, 0);
    const int server = ctx && map ? modbus_tcp_listen(ctx, 64) : -1;
    if (server < 0) {
        std::fprintf(stderr, "load_test_server: %s\n", modbus_strerror(errno));
        return 1;
    }
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    getsockname(server, reinterpret_cast<sockaddr*>(&addr), &len);
    std::printf("%u\n", ntohs(addr.sin_port));
    std::fflush(stdout);

    fd_set all;
    FD_ZERO(&all);
    FD_SET(server, &all);
    int top = server;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    uint8_t query[MODBUS_TCP_MAX_ADU_LENGTH];
    while (std::chrono::steady_clock::now() < end) {
        fd_set ready = all;
        timeval tv{0, 100000};
        if (select(top + 1, &ready, nullptr, nullptr, &tv) <= 0)
            continue;
        for (int fd = 0; fd <= top; ++fd) {
            if (!FD_ISSET(fd, &ready))
                continue;
            if (fd == server) {
                const int client = accept(server, nullptr, nullptr);
                if (client >= 0 && client < FD_SETSIZE) {
                    FD_SET(client, &all);
                    top = client > top ? client : top;
                } else if (client >= 0) {
                    close(client);
                }
                continue;
            }
            modbus_set_socket(ctx, fd);
            const int rc = modbus_receive(ctx, query);
            if (rc > 0) {
                modbus_reply(ctx, query, rc, map);
            } else if (rc == -1) {
                close(fd);
                FD_CLR(fd, &all);
            }
        }
    }
    modbus_mapping_free(map);
    modbus_free(ctx);
    return 0;
}
