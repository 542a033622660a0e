/*
 * A Modbus RTU slave for the gateway tests and the demo: libmodbus makes every answer
 * (modbus_reply), for one or more slave addresses on one serial line, so that two slaves can
 * share a pseudo-terminal. Frames are found by their function's length and checked by CRC
 * here, since libmodbus's own receive serves one address and, on a shared line, takes the
 * frame after a foreign request for that slave's answer and drops it.
 *
 * usage: rtu_test_slave DEVICE UNITS [--echo] [--registers N]
 *   UNITS: slave addresses such as 5 or 5,6. Holding and input register i reads i * 10 at
 *   first, coil i is i & 1; N (100) of each: an address past them answers exception 2.
 *   --echo: the line echoes what it is sent, as a two-wire adapter that hears itself.
 * Stops on SIGINT or SIGTERM.
 */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <modbus.h>

static volatile sig_atomic_t g_stop;
static void on_signal(int sig) { (void)sig; g_stop = 1; }

static unsigned crc16(const unsigned char* p, size_t n)
{
    unsigned crc = 0xFFFF;
    for (size_t i = 0; i < n; ++i) {
        crc ^= p[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? (crc >> 1) ^ 0xA001 : crc >> 1;
    }
    return crc;
}

/* The whole length of the request that starts with the n bytes at f; 0 while unknown, -1 for
 * a function this slave does not frame. */
static int request_length(const unsigned char* f, size_t n)
{
    switch (f[1]) {
    case 1: case 2: case 3: case 4: case 5: case 6: case 8:
        return 8;
    case 15: case 16:
        return n < 7 ? 0 : 9 + f[6];
    case 22:
        return 10;
    case 23:
        return n < 11 ? 0 : 13 + f[10];
    case 17:
        return 4;
    default:
        return -1;
    }
}

int main(int argc, char** argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: %s DEVICE UNITS [--echo] [--registers N]\n", argv[0]);
        return 2;
    }
    unsigned char units[256] = {0};
    for (char* p = argv[2]; *p;) {
        long u = strtol(p, &p, 10);
        if (u < 1 || u > 247) {
            fprintf(stderr, "rtu_test_slave: bad slave address in '%s'\n", argv[2]);
            return 2;
        }
        units[u] = 1;
        if (*p == ',')
            ++p;
    }
    int echo = 0, n = 100;
    for (int i = 3; i < argc; ++i) {
        if (!strcmp(argv[i], "--echo"))
            echo = 1;
        else if (!strcmp(argv[i], "--registers") && i + 1 < argc)
            n = atoi(argv[++i]);
    }
    int fd = open(argv[1], O_RDWR | O_NOCTTY);
    if (fd < 0) {
        fprintf(stderr, "rtu_test_slave: %s: %s\n", argv[1], strerror(errno));
        return 1;
    }
    struct termios t;
    tcgetattr(fd, &t);
    cfmakeraw(&t);
    if (echo)
        t.c_lflag |= ECHO; /* without ECHOCTL: every byte back as it came */
    tcsetattr(fd, TCSANOW, &t);

    modbus_t* ctx = modbus_new_rtu(argv[1], 115200, 'N', 8, 1);
    modbus_mapping_t* map = modbus_mapping_new(n, n, n, n);
    if (!ctx || !map || modbus_set_socket(ctx, fd) == -1) {
        fprintf(stderr, "rtu_test_slave: %s\n", modbus_strerror(errno));
        return 1;
    }
    for (int i = 0; i < n; ++i) {
        map->tab_registers[i] = (uint16_t)(i * 10);
        map->tab_input_registers[i] = (uint16_t)(i * 10);
        map->tab_bits[i] = (uint8_t)(i & 1);
        map->tab_input_bits[i] = (uint8_t)(i & 1);
    }
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigaction(SIGINT, &sa, NULL);
    sigaction(SIGTERM, &sa, NULL);
    printf("rtu_test_slave on %s, slaves %s%s\n", argv[1], argv[2], echo ? ", echoing" : "");
    fflush(stdout);

    unsigned char frame[MODBUS_RTU_MAX_ADU_LENGTH];
    size_t have = 0;
    while (!g_stop) {
        struct pollfd p = {fd, POLLIN, 0};
        /* A pause inside a frame ends it: the master gave up on it. */
        int rc = poll(&p, 1, have ? 20 : 200);
        if (rc == 0) {
            have = 0;
            continue;
        }
        if (rc < 0 || !(p.revents & POLLIN)) {
            if (rc < 0 && errno == EINTR)
                continue;
            usleep(100000); /* the other end went away: wait for it */
            continue;
        }
        ssize_t got = read(fd, frame + have, sizeof frame - have);
        if (got <= 0) {
            usleep(100000);
            continue;
        }
        have += (size_t)got;
        while (have >= 2) {
            int length = request_length(frame, have);
            if (length < 0) {
                have = 0; /* nothing this slave frames: wait for the next pause */
                break;
            }
            if (length == 0 || have < (size_t)length)
                break;
            unsigned crc = crc16(frame, (size_t)length - 2);
            if (frame[length - 2] == (crc & 0xFF) && frame[length - 1] == (crc >> 8) &&
                (frame[0] == 0 || units[frame[0]]))
                modbus_reply(ctx, frame, length, map);
            memmove(frame, frame + length, have - (size_t)length);
            have -= (size_t)length;
        }
    }
    modbus_mapping_free(map);
    modbus_free(ctx);
    close(fd);
    return 0;
}
