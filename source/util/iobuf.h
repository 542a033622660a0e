#pragma once
// The byte buffer that transports fill and frames parse from and serialize into.
#include <cstdint>
#include <utility>
#include <vector>

typedef std::vector<uint8_t> iobuf_t;
typedef iobuf_t::const_iterator iobuf_const_iter_t;
typedef std::pair<iobuf_const_iter_t, iobuf_const_iter_t> iobuf_const_pair_t;
