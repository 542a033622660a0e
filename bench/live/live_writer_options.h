#pragma once
// The live writer's command line. parse() never exits the process: it says what was wrong.
#include <string>

class CLiveWriterOptions {
public:
    // Empty when the arguments are good (or help was asked for); else the complaint.
    std::string parse(int argc, char** argv);
    static std::string usage(const char* program);

    std::string device;    // the unit's device path, e.g. /Devices/Bench
    unsigned count = 100;  // leaves <device>/R0/Value .. R{count-1}/Value
    unsigned rate = 10;    // batches per second
    unsigned duration = 0; // seconds; 0 runs until SIGTERM or SIGINT
    bool help = false;
};
