#pragma once
// The mappings of one kind of one file, indexed by the address range each occupies: a lookup
// gives every mapping that shares an address with the range asked for.
//
// The entries are sorted by first address (file order among equal ones), and each position
// keeps the highest last address of the entries up to it. The entries that can overlap
// [a, b] are then one slice: those starting at or below b, from the first position whose
// running maximum reaches a. The slice may hold entries nested in a longer one that end
// before a; the iterator steps over them. Two binary searches and no allocation per lookup.
//
// Overlapping ranges are kept; deciding which one counts is the caller's business.
#include "modbus/address_range/address_range.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

template <class T> class CIntervalIndex {
public:
    // As in the ordered maps the index replaces: (range, mapping).
    typedef std::pair<CAddressRange, const T*> value_type;
    typedef std::vector<std::pair<CAddressRange, std::unique_ptr<T>>> items_t;

    // Walks the entries of one lookup, in first-address order.
    class const_iterator {
    public:
        typedef std::forward_iterator_tag iterator_category;
        typedef CIntervalIndex::value_type value_type;
        typedef std::ptrdiff_t difference_type;
        typedef const value_type* pointer;
        typedef const value_type& reference;

        const_iterator() = default;
        const_iterator(pointer at, pointer end, regaddr_t first)
            : _at(at), _end(end), _first(first) {
            skip();
        }

        reference operator*() const { return *_at; }
        pointer operator->() const { return _at; }
        const_iterator& operator++() {
            ++_at;
            skip();
            return *this;
        }
        const_iterator operator++(int) {
            const_iterator old = *this;
            ++*this;
            return old;
        }
        bool operator==(const const_iterator& x) const { return _at == x._at; }
        bool operator!=(const const_iterator& x) const { return _at != x._at; }

    private:
        // Past the entries that end below the lookup.
        void skip() {
            while (_at != _end && _at->first.second < _first)
                ++_at;
        }

        pointer _at = nullptr;
        pointer _end = nullptr;
        regaddr_t _first = 0;
    };
    typedef std::pair<const_iterator, const_iterator> iterrange_t;

    CIntervalIndex() = default;
    // Takes the items; every range must have first <= second.
    explicit CIntervalIndex(items_t items) {
        std::stable_sort(items.begin(), items.end(), [](const auto& a, const auto& b) {
            return a.first.first < b.first.first;
        });
        _entries.reserve(items.size());
        _max_last.reserve(items.size());
        _owned.reserve(items.size());
        for (auto& item : items) {
            assert(item.first.first <= item.first.second);
            assert(item.second);
            _entries.emplace_back(item.first, item.second.get());
            _max_last.push_back(_max_last.empty() ? item.first.second
                                                  : std::max(_max_last.back(), item.first.second));
            _owned.push_back(std::move(item.second));
        }
    }

    // Every entry that shares an address with r (r.first <= r.second).
    iterrange_t overlapping(const CAddressRange& r) const {
        const std::pair<size_t, size_t> s = slice(r);
        const value_type* const data = _entries.data();
        return iterrange_t(const_iterator(data + s.first, data + s.second, r.first),
                           const_iterator(data + s.second, data + s.second, r.first));
    }

    // The positions [first, second) of entries() that overlapping(r) walks, including the
    // nested entries it steps over (those that end before r.first).
    std::pair<size_t, size_t> slice(const CAddressRange& r) const {
        assert(r.first <= r.second);
        const auto hi =
            std::partition_point(_entries.begin(), _entries.end(),
                                 [&](const value_type& e) { return e.first.first <= r.second; });
        const size_t nhi = static_cast<size_t>(hi - _entries.begin());
        const auto lo = std::partition_point(_max_last.begin(), _max_last.begin() + nhi,
                                             [&](regaddr_t last) { return last < r.first; });
        return std::make_pair(static_cast<size_t>(lo - _max_last.begin()), nhi);
    }

    // Every entry, in first-address order.
    const std::vector<value_type>& entries() const { return _entries; }

private:
    std::vector<value_type> _entries;
    std::vector<regaddr_t> _max_last; // the highest last address of _entries[0 .. i]
    std::vector<std::unique_ptr<T>> _owned;
};
