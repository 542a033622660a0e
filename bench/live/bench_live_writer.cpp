// Keeps a block of mapped leaves changing at a steady rate while the server is measured:
// the load a device's measurement process puts on the store. Prints a summary when it ends.
#include "live_writer.h"
#include "live_writer_options.h"

#include <csignal>
#include <cstdio>
#include <thread>

namespace {

volatile std::sig_atomic_t g_stop = 0;

void on_signal(int) {
    g_stop = 1;
}

double ms(std::chrono::steady_clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

} // namespace

int main(int argc, char** argv) {
    CLiveWriterOptions options;
    const std::string complaint = options.parse(argc, argv);
    if (!complaint.empty()) {
        std::fprintf(stderr, "bench_live_writer: %s\n%s", complaint.c_str(),
                     CLiveWriterOptions::usage(argv[0]).c_str());
        return 2;
    }
    if (options.help) {
        std::fputs(CLiveWriterOptions::usage(argv[0]).c_str(), stdout);
        return 0;
    }
    CLiveWriter writer(options.device, options.count);
    if (!writer.open()) {
        std::fprintf(stderr, "bench_live_writer: %s\n", writer.error().c_str());
        return 1;
    }
    std::signal(SIGTERM, on_signal);
    std::signal(SIGINT, on_signal);

    using clock_t_ = std::chrono::steady_clock;
    const clock_t_::duration period = std::chrono::microseconds(1000000 / options.rate);
    const clock_t_::time_point start = clock_t_::now();
    const clock_t_::time_point end = start + std::chrono::seconds(options.duration);
    clock_t_::time_point next = start;
    clock_t_::duration slowest{0}, total{0};
    unsigned long ticks = 0, written = 0, failed = 0, late = 0;
    int status = 0;
    while (!g_stop && (options.duration == 0 || clock_t_::now() < end)) {
        const clock_t_::time_point t0 = clock_t_::now();
        if (writer.write(static_cast<uint16_t>(ticks + 1))) {
            const clock_t_::duration took = clock_t_::now() - t0;
            total += took;
            ++written;
            if (took > slowest)
                slowest = took;
        } else {
            // A bad fixture ends the run at once; a busy store is said once and counted.
            if (writer.refused() || failed == 0)
                std::fprintf(stderr, "bench_live_writer: %s\n", writer.error().c_str());
            if (writer.refused()) {
                status = 1;
                break;
            }
            ++failed;
        }
        ++ticks;
        next += period;
        const clock_t_::time_point now = clock_t_::now();
        if (now >= next) {
            // Behind: count it and start afresh rather than burst to catch up.
            ++late;
            next = now;
        } else {
            std::this_thread::sleep_until(next);
        }
    }
    const double secs = ms(clock_t_::now() - start) / 1000.0;
    std::printf("bench_live_writer: %lu batches of %u leaves in %.1f s (%.1f/s), %lu failed, "
                "%lu late; batch mean %.3f ms, max %.3f ms\n",
                ticks, options.count, secs, secs > 0 ? ticks / secs : 0.0, failed, late,
                written ? ms(total) / written : 0.0, ms(slowest));
    return status;
}
