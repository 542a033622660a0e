#include "modbus/address_range/interval_index.h"
#include "test/global_test_data.h"

#include <boost/test/unit_test.hpp>

#include <algorithm>
#include <sstream>
#include <vector>

namespace {

// The item's place in the input stands for its id.
typedef CIntervalIndex<size_t> index_t;

index_t build(const std::vector<CAddressRange>& ranges) {
    index_t::items_t items;
    for (size_t i = 0; i < ranges.size(); ++i)
        items.emplace_back(ranges[i], std::make_unique<size_t>(i));
    return index_t(std::move(items));
}

std::vector<size_t> lookup(const index_t& index, const CAddressRange& r) {
    std::vector<size_t> out;
    const auto range = index.overlapping(r);
    for (auto it = range.first; it != range.second; ++it)
        out.push_back(*it->second);
    return out;
}

// What a lookup must give: every overlapping item, by first address, input order among
// equal first addresses.
std::vector<size_t> model(const std::vector<CAddressRange>& ranges, const CAddressRange& r) {
    std::vector<size_t> out;
    for (size_t i = 0; i < ranges.size(); ++i)
        if (ranges[i].overlaps(r))
            out.push_back(i);
    std::stable_sort(out.begin(), out.end(),
                     [&](size_t a, size_t b) { return ranges[a].first < ranges[b].first; });
    return out;
}

std::string describe(const std::vector<CAddressRange>& ranges, const CAddressRange& r) {
    std::ostringstream text;
    for (const CAddressRange& x : ranges)
        text << "[" << x.first << ".." << x.second << "] ";
    text << "lookup [" << r.first << ".." << r.second << "]";
    return text.str();
}

// Every lookup of one or two addresses up to top, and those at the edges of the address
// space, against the model.
void check_all_lookups(const std::vector<CAddressRange>& ranges, regaddr_t top) {
    const index_t index = build(ranges);
    std::vector<CAddressRange> asked = {CAddressRange::all_addrs(), {65535, 65535}, {1, 65529}};
    for (regaddr_t a = 0; a <= top; ++a)
        for (regaddr_t b = a; b <= top && b <= a + 1; ++b)
            asked.emplace_back(a, b);
    for (const CAddressRange& r : asked)
        BOOST_TEST(lookup(index, r) == model(ranges, r), describe(ranges, r));
}

} // namespace

BOOST_AUTO_TEST_SUITE(mapping)

BOOST_AUTO_TEST_CASE(interval_index_chains_and_nesting_in_every_order) {
    const std::vector<std::vector<CAddressRange>> shapes = {
        // A chain whose middle link overlaps both ends (the reported abort on address 6).
        {{0, 3}, {4, 7}, {2, 5}},
        // Nested: a long range holding short ones, one of them ending before the others.
        {{0, 20}, {5, 6}, {8, 9}},
        // The reported pair: overlapping at one address, and a range sharing its start.
        {{31, 32}, {30, 31}, {30, 30}},
        // Identical ranges, and one inside them.
        {{4, 9}, {4, 9}, {6, 6}},
        // The edges of the address space; none at all.
        {{65535, 65535}, {0, 65535}, {0, 0}, {65530, 65535}},
        {},
    };
    const auto before = [](const CAddressRange& a, const CAddressRange& b) {
        return a.first != b.first ? a.first < b.first : a.second < b.second;
    };
    for (std::vector<CAddressRange> ranges : shapes) {
        std::sort(ranges.begin(), ranges.end(), before);
        do {
            check_all_lookups(ranges, 34);
        } while (std::next_permutation(ranges.begin(), ranges.end(), before));
    }
}

BOOST_AUTO_TEST_CASE(interval_index_against_a_model) {
    CRandom& random = test_data().random();
    for (int round = 0; round < 300; ++round) {
        std::vector<CAddressRange> ranges;
        const unsigned n = random.uniform(0u, 12u);
        for (unsigned i = 0; i < n; ++i) {
            const unsigned first = random.uniform(0u, 40u);
            // Mostly short, now and then one that spans many others.
            const unsigned len =
                random.bernoulli(0.2) ? random.uniform(10u, 30u) : random.uniform(1u, 4u);
            ranges.emplace_back(first, first + len - 1);
        }
        const index_t index = build(ranges);
        for (int q = 0; q < 40; ++q) {
            const unsigned a = random.uniform(0u, 75u);
            const CAddressRange r(a, a + random.uniform(0u, 6u));
            BOOST_TEST(lookup(index, r) == model(ranges, r), describe(ranges, r)
                                                                 << " seed " << random.seed());
        }
    }
}

BOOST_AUTO_TEST_SUITE_END()
