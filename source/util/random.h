#pragma once
// A seeded Mersenne Twister with the distributions the tests draw from. The seed is kept
// so that a run can be repeated.
#include "util/timestamp.h"

#include <boost/optional.hpp>
#include <boost/random/mersenne_twister.hpp>

#include <cstdint>

class CRandom {
public:
    // Seeds from `seed`, or from random_value() when none is given.
    explicit CRandom(boost::optional<uint32_t> seed = boost::none);

    uint32_t seed() const { return _seed; }
    // Four bytes from /dev/random; throws CError when they cannot be read.
    static uint32_t random_value();

    double normal(double mean, double sigma);
    double exponential(double lambda);
    uint32_t geom_uint32(double p);
    bool bernoulli(double p);
    double uniform(double min, double max);
    unsigned uniform(unsigned min, unsigned max); // inclusive
    CTimestamp uniform(const CTimestamp& min, const CTimestamp& max);

    boost::random::mt19937& engine() { return _engine; }

private:
    uint32_t _seed;
    boost::random::mt19937 _engine;
};
