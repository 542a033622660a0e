#include "load_options.h"

#include <getopt.h>
#include <netdb.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

// A whole decimal number within [low, high].
bool to_number(const char* text, unsigned long low, unsigned long high, unsigned long& out) {
    if (text == nullptr || *text == '\0' || *text == '-' || *text == '+')
        return false;
    errno = 0;
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (errno != 0 || *end != '\0' || value < low || value > high)
        return false;
    out = value;
    return true;
}

unsigned request_count(CLoadOptions::request_t request) {
    switch (request) {
    case CLoadOptions::request_t::read125:
        return 125;
    case CLoadOptions::request_t::read1:
        return 1;
    case CLoadOptions::request_t::write100:
        return 100;
    case CLoadOptions::request_t::coils2000:
        return 2000;
    }
    return 1;
}

// The option getopt stopped at, as the user wrote it.
std::string option_name(const char* arg) {
    if (std::strncmp(arg, "--", 2) == 0)
        return std::string(arg, std::strcspn(arg, "="));
    return std::string("-") + static_cast<char>(optopt);
}

} // namespace

const char* CLoadOptions::request_name(request_t request) {
    switch (request) {
    case request_t::read125:
        return "read125";
    case request_t::read1:
        return "read1";
    case request_t::write100:
        return "write100";
    case request_t::coils2000:
        return "coils2000";
    }
    return "?";
}

const char* CLoadOptions::framing_name(framing_t framing) {
    switch (framing) {
    case framing_t::tcp:
        return "tcp";
    case framing_t::rtu_over_tcp:
        return "rtu-over-tcp";
    case framing_t::udp:
        return "udp";
    }
    return "?";
}

std::string CLoadOptions::usage(const char* program) {
    return std::string("usage: ") + program +
           " [options]\n"
           "  -H, --host ADDR         server address (default 127.0.0.1)\n"
           "  -p, --port N            TCP or UDP port (default 502)\n"
           "  -f, --framing F         tcp: Modbus TCP (default); rtu-over-tcp: RTU frames on\n"
           "                          TCP; udp: Modbus/UDP, one request per datagram\n"
           "  -u, --unit N            unit id, 0 to 247 or 255 (default 1)\n"
           "  -c, --connections N     parallel connections, 1 to 1024 (default 1)\n"
           "  -d, --duration S        seconds to run, 1 to 3600 (default 5)\n"
           "  -r, --request KIND      read125: read 125 holding registers (default)\n"
           "                          read1: read 1 holding register\n"
           "                          write100: write back 100 registers read at start\n"
           "                          coils2000: read 2000 coils\n"
           "  -a, --address A         first address of the request (default 0)\n"
           "  -t, --timeout MS        response time-out, 1 to 60000 ms (default 1000)\n"
           "  -h, --help              this text\n";
}

std::string CLoadOptions::parse(int argc, char** argv) {
    static const option long_options[] = {{"host", required_argument, nullptr, 'H'},
                                          {"port", required_argument, nullptr, 'p'},
                                          {"framing", required_argument, nullptr, 'f'},
                                          {"unit", required_argument, nullptr, 'u'},
                                          {"connections", required_argument, nullptr, 'c'},
                                          {"duration", required_argument, nullptr, 'd'},
                                          {"request", required_argument, nullptr, 'r'},
                                          {"address", required_argument, nullptr, 'a'},
                                          {"timeout", required_argument, nullptr, 't'},
                                          {"help", no_argument, nullptr, 'h'},
                                          {nullptr, 0, nullptr, 0}};
    optind = 1;
    opterr = 0;
    unsigned long value = 0;
    int c;
    while ((c = getopt_long(argc, argv, ":H:p:f:u:c:d:r:a:t:h", long_options, nullptr)) != -1) {
        switch (c) {
        case 'H':
            if (*optarg == '\0')
                return "empty host";
            host = optarg;
            break;
        case 'p':
            if (!to_number(optarg, 1, 65535, value))
                return std::string("bad port '") + optarg + "': 1 to 65535";
            port = static_cast<uint16_t>(value);
            break;
        case 'u':
            if (!to_number(optarg, 0, 255, value) || (value > 247 && value != 255))
                return std::string("bad unit id '") + optarg + "': 0 to 247 or 255";
            unit = static_cast<int>(value);
            break;
        case 'c':
            if (!to_number(optarg, 1, 1024, value))
                return std::string("bad connection count '") + optarg + "': 1 to 1024";
            connections = static_cast<unsigned>(value);
            break;
        case 'd':
            if (!to_number(optarg, 1, 3600, value))
                return std::string("bad duration '") + optarg + "': 1 to 3600 seconds";
            duration_s = static_cast<unsigned>(value);
            break;
        case 't':
            if (!to_number(optarg, 1, 60000, value))
                return std::string("bad time-out '") + optarg + "': 1 to 60000 ms";
            timeout_ms = static_cast<unsigned>(value);
            break;
        case 'a':
            if (!to_number(optarg, 0, 65535, value))
                return std::string("bad address '") + optarg + "': 0 to 65535";
            address = static_cast<uint16_t>(value);
            break;
        case 'f': {
            bool known = false;
            for (framing_t f : {framing_t::tcp, framing_t::rtu_over_tcp, framing_t::udp})
                if (std::strcmp(optarg, framing_name(f)) == 0) {
                    framing = f;
                    known = true;
                }
            if (!known)
                return std::string("unknown framing '") + optarg + "': tcp, rtu-over-tcp or udp";
            break;
        }
        case 'r': {
            bool known = false;
            for (request_t r :
                 {request_t::read125, request_t::read1, request_t::write100, request_t::coils2000})
                if (std::strcmp(optarg, request_name(r)) == 0) {
                    request = r;
                    known = true;
                }
            if (!known)
                return std::string("unknown request '") + optarg +
                       "': read125, read1, write100 or coils2000";
            break;
        }
        case 'h':
            help = true;
            return "";
        case ':':
            return "option " + option_name(argv[optind - 1]) + " needs a value";
        default:
            return "unknown option " + option_name(argv[optind - 1]);
        }
    }
    if (optind < argc)
        return std::string("unexpected argument '") + argv[optind] + "'";
    if (uint32_t(address) + request_count(request) - 1 > 65535)
        return "the request would run past address 65535";
    // The connection would only say "refused" for a name that does not resolve.
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int rc = getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (rc != 0)
        return "bad host '" + host + "': " + gai_strerror(rc);
    freeaddrinfo(found);
    return "";
}
