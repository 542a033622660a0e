// A Modbus load client (TCP, RTU over TCP or UDP): N connections, each sending one kind of request back to back for
// a fixed time; prints the request rate and the latency percentiles.
#include "latency_histogram.h"
#include "load_options.h"
#include "load_worker.h"

#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

namespace {

double ms(uint64_t us) {
    return static_cast<double>(us) / 1000.0;
}

} // namespace

int main(int argc, char** argv) {
    CLoadOptions options;
    const std::string complaint = options.parse(argc, argv);
    if (!complaint.empty()) {
        std::fprintf(stderr, "modbus_load: %s\n%s", complaint.c_str(),
                     CLoadOptions::usage(argv[0]).c_str());
        return 2;
    }
    if (options.help) {
        std::fputs(CLoadOptions::usage(argv[0]).c_str(), stdout);
        return 0;
    }

    std::vector<std::unique_ptr<CLoadWorker>> workers;
    std::vector<std::string> failures(options.connections);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < options.connections; ++i) {
        workers.push_back(std::make_unique<CLoadWorker>(options));
        threads.emplace_back([&, i] { workers[i]->connect(failures[i]); });
    }
    for (auto& t : threads)
        t.join();
    threads.clear();
    for (const std::string& failure : failures)
        if (!failure.empty()) {
            std::fprintf(stderr, "modbus_load: %s\n", failure.c_str());
            return 1;
        }

    const auto start = CLoadWorker::steady_t::now();
    const auto deadline = start + std::chrono::seconds(options.duration_s);
    for (auto& worker : workers)
        threads.emplace_back([&worker, deadline] { worker->run(deadline); });
    for (auto& t : threads)
        t.join();
    const double elapsed =
        std::chrono::duration<double>(CLoadWorker::steady_t::now() - start).count();

    CLatencyHistogram all;
    uint64_t exceptions = 0;
    uint64_t errors = 0;
    for (const auto& worker : workers) {
        all.merge(worker->latencies());
        exceptions += worker->exceptions();
        errors += worker->errors();
    }
    const bool tcp = options.framing == CLoadOptions::framing_t::tcp;
    std::printf("%s at address %u, unit %d, %s%s%s:%u, %u connection%s, %u s\n",
                CLoadOptions::request_name(options.request), options.address, options.unit,
                tcp ? "" : CLoadOptions::framing_name(options.framing), tcp ? "" : " ",
                options.host.c_str(), options.port, options.connections,
                options.connections == 1 ? "" : "s", options.duration_s);
    std::printf("answers: %llu in %.2f s = %.0f requests/s\n",
                static_cast<unsigned long long>(all.count()), elapsed,
                static_cast<double>(all.count()) / elapsed);
    std::printf("latency: p50 %.3f ms, p99 %.3f ms, max %.3f ms\n", ms(all.percentile(0.5)),
                ms(all.percentile(0.99)), ms(all.max()));
    std::printf("exception responses: %llu, errors: %llu\n",
                static_cast<unsigned long long>(exceptions),
                static_cast<unsigned long long>(errors));
    if (all.count() == 0) {
        std::fprintf(stderr, "modbus_load: no request was answered\n");
        return 1;
    }
    return 0;
}
