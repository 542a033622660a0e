#include "live_writer_options.h"

#include <getopt.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

// A whole decimal number within [low, high].
bool to_number(const char* text, unsigned long low, unsigned long high, unsigned& out) {
    if (text == nullptr || *text == '\0' || *text == '-' || *text == '+')
        return false;
    errno = 0;
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (errno != 0 || *end != '\0' || value < low || value > high)
        return false;
    out = static_cast<unsigned>(value);
    return true;
}

} // namespace

std::string CLiveWriterOptions::usage(const char* program) {
    return std::string("usage: ") + program +
           " [options] DEVICE\n"
           "Writes DEVICE/R0/Value .. DEVICE/R{N-1}/Value of the store named by CDS_STORE,\n"
           "all in one batch per tick, each tick with the next value (tick count, 16 bits).\n"
           "  -n, --count N       leaves per batch, 1 to 65536 (default 100)\n"
           "  -r, --rate N        batches per second, 1 to 1000 (default 10)\n"
           "  -d, --duration S    seconds to run, 0 to 86400; 0 until SIGTERM (default 0)\n"
           "  -h, --help          this text\n";
}

std::string CLiveWriterOptions::parse(int argc, char** argv) {
    static const option long_options[] = {{"count", required_argument, nullptr, 'n'},
                                          {"rate", required_argument, nullptr, 'r'},
                                          {"duration", required_argument, nullptr, 'd'},
                                          {"help", no_argument, nullptr, 'h'},
                                          {nullptr, 0, nullptr, 0}};
    optind = 1;
    opterr = 0;
    for (;;) {
        const int c = getopt_long(argc, argv, ":n:r:d:h", long_options, nullptr);
        if (c == -1)
            break;
        switch (c) {
        case 'n':
            if (!to_number(optarg, 1, 65536, count))
                return "--count must be a number from 1 to 65536, not '" + std::string(optarg) +
                       "'";
            break;
        case 'r':
            if (!to_number(optarg, 1, 1000, rate))
                return "--rate must be a number from 1 to 1000, not '" + std::string(optarg) + "'";
            break;
        case 'd':
            if (!to_number(optarg, 0, 86400, duration))
                return "--duration must be a number from 0 to 86400, not '" + std::string(optarg) +
                       "'";
            break;
        case 'h':
            help = true;
            return "";
        case ':':
            return std::string(argv[optind - 1]) + " needs a value";
        default:
            return "unknown option " + std::string(argv[optind - 1]);
        }
    }
    if (optind != argc - 1)
        return optind == argc ? "the device path is missing" : "one device path only";
    device = argv[optind];
    if (device.empty() || device[0] != '/')
        return "the device path must start with '/', not '" + device + "'";
    while (device.size() > 1 && device.back() == '/')
        device.pop_back();
    return "";
}
