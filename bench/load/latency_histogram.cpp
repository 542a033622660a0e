#include "latency_histogram.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr unsigned exact_bits = 7; // values below 128 have a bucket each
constexpr unsigned sub_bits = 6;   // 64 buckets per power of two above
constexpr unsigned top_bit = 40;   // about 12 days; longer values count as this
constexpr uint64_t top_value = (uint64_t(1) << (top_bit + 1)) - 1;
constexpr size_t bucket_count =
    (size_t(1) << exact_bits) + (top_bit - exact_bits + 1) * (size_t(1) << sub_bits);

unsigned highest_bit(uint64_t v) {
    unsigned bit = 0;
    while (v >>= 1)
        ++bit;
    return bit;
}

} // namespace

CLatencyHistogram::CLatencyHistogram() : _counts(bucket_count, 0) {}

size_t CLatencyHistogram::bucket(uint64_t us) {
    us = std::min(us, top_value);
    if (us < (uint64_t(1) << exact_bits))
        return static_cast<size_t>(us);
    const unsigned bit = highest_bit(us);
    const uint64_t sub = (us >> (bit - sub_bits)) & ((uint64_t(1) << sub_bits) - 1);
    return (size_t(1) << exact_bits) + (bit - exact_bits) * (size_t(1) << sub_bits) +
           static_cast<size_t>(sub);
}

uint64_t CLatencyHistogram::bucket_top(size_t index) {
    if (index < (size_t(1) << exact_bits))
        return index;
    const size_t above = index - (size_t(1) << exact_bits);
    const unsigned bit = exact_bits + static_cast<unsigned>(above >> sub_bits);
    const uint64_t sub = above & ((size_t(1) << sub_bits) - 1);
    return (((uint64_t(1) << sub_bits) + sub + 1) << (bit - sub_bits)) - 1;
}

void CLatencyHistogram::record(uint64_t us) {
    ++_counts[bucket(us)];
    ++_total;
    _max = std::max(_max, us);
}

void CLatencyHistogram::merge(const CLatencyHistogram& other) {
    for (size_t i = 0; i < _counts.size(); ++i)
        _counts[i] += other._counts[i];
    _total += other._total;
    _max = std::max(_max, other._max);
}

uint64_t CLatencyHistogram::percentile(double p) const {
    if (_total == 0)
        return 0;
    p = std::min(std::max(p, 0.0), 1.0);
    // The rank of the value wanted, 1-based; at least the first value.
    const uint64_t rank =
        std::max<uint64_t>(1, static_cast<uint64_t>(std::ceil(p * static_cast<double>(_total))));
    uint64_t seen = 0;
    for (size_t i = 0; i < _counts.size(); ++i) {
        seen += _counts[i];
        if (seen >= rank)
            return std::min(bucket_top(i), _max);
    }
    return _max;
}
