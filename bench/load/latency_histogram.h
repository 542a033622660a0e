#pragma once
// Latencies in microseconds, kept in buckets so that memory stays fixed however long a run
// is. Values below 128 us are exact; above, each power of two is split into 64 buckets, so
// a percentile is within 1.6 % of the true value. The maximum is exact.
#include <cstddef>
#include <cstdint>
#include <vector>

class CLatencyHistogram {
public:
    CLatencyHistogram();

    void record(uint64_t us);
    void merge(const CLatencyHistogram& other);
    uint64_t count() const { return _total; }
    uint64_t max() const { return _max; }
    // The smallest bucket top below which at least fraction p (0 to 1) of the values lie;
    // 0 when nothing was recorded.
    uint64_t percentile(double p) const;

private:
    static size_t bucket(uint64_t us);
    static uint64_t bucket_top(size_t index);

    std::vector<uint64_t> _counts;
    uint64_t _total = 0;
    uint64_t _max = 0;
};
