#pragma once
// The load client's command line. parse() never exits the process: it says what was wrong.
#include <cstdint>
#include <string>

class CLoadOptions {
public:
    enum class request_t { read125, read1, write100, coils2000 };
    enum class framing_t { tcp, rtu_over_tcp, udp };

    // Empty when the arguments are good (or help was asked for); else the complaint.
    std::string parse(int argc, char** argv);
    static std::string usage(const char* program);
    static const char* request_name(request_t request);
    static const char* framing_name(framing_t framing);

    std::string host = "127.0.0.1";
    uint16_t port = 502;
    int unit = 1;
    unsigned connections = 1;
    unsigned duration_s = 5;
    unsigned timeout_ms = 1000;
    request_t request = request_t::read125;
    framing_t framing = framing_t::tcp;
    uint16_t address = 0;
    bool help = false;
};
