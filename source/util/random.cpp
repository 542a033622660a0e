#include "util/random.h"

#include "util/error.h"

#include <boost/random/bernoulli_distribution.hpp>
#include <boost/random/exponential_distribution.hpp>
#include <boost/random/geometric_distribution.hpp>
#include <boost/random/normal_distribution.hpp>
#include <boost/random/uniform_int_distribution.hpp>
#include <boost/random/uniform_real_distribution.hpp>

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <unistd.h>

CRandom::CRandom(boost::optional<uint32_t> seed)
    : _seed(seed ? *seed : random_value()), _engine(_seed) {}

uint32_t CRandom::random_value() {
    const int fd = ::open("/dev/random", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        throw CError("Can't open /dev/random: " + std::to_string(errno));
    unsigned char bytes[4];
    const ssize_t n = ::read(fd, bytes, sizeof bytes);
    const int error = errno;
    ::close(fd);
    if (n != static_cast<ssize_t>(sizeof bytes))
        throw CError("Error/EOF reading /dev/random: " + std::to_string(n) + " / " +
                     std::to_string(error));
    return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
           static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
}

double CRandom::normal(double mean, double sigma) {
    return boost::random::normal_distribution<double>(mean, sigma)(_engine);
}

double CRandom::exponential(double lambda) {
    return boost::random::exponential_distribution<double>(lambda)(_engine);
}

uint32_t CRandom::geom_uint32(double p) {
    return boost::random::geometric_distribution<uint32_t, double>(p)(_engine);
}

bool CRandom::bernoulli(double p) {
    return boost::random::bernoulli_distribution<double>(p)(_engine);
}

double CRandom::uniform(double min, double max) {
    return boost::random::uniform_real_distribution<double>(min, max)(_engine);
}

unsigned CRandom::uniform(unsigned min, unsigned max) {
    return boost::random::uniform_int_distribution<unsigned>(min, max)(_engine);
}

CTimestamp CRandom::uniform(const CTimestamp& min, const CTimestamp& max) {
    const int64_t ns =
        boost::random::uniform_int_distribution<int64_t>(min.to_nsec(), max.to_nsec())(_engine);
    return CTimestamp::from_nsec(ns);
}
