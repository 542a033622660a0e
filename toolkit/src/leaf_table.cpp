#include "toolkit/leaf_table.h"

#include "store_connection.h"

#include <cassert>
#include <limits>
#include <stdexcept>

namespace toolkit {

uint32_t CLeafTable::hash(std::string_view path) {
    // FNV-1a, then MurmurHash3's finaliser: paths differ mostly in their last bytes, which
    // FNV alone leaves in the high bits, and the index uses the low ones.
    uint32_t h = 2166136261u;
    for (const char c : path)
        h = (h ^ static_cast<unsigned char>(c)) * 16777619u;
    h ^= h >> 16;
    h *= 0x85ebca6bu;
    h ^= h >> 13;
    h *= 0xc2b2ae35u;
    h ^= h >> 16;
    return h;
}

size_t CLeafTable::slot_of(std::string_view path, uint32_t hash) const {
    const size_t mask = _index.size() - 1;
    for (size_t i = hash & mask;; i = (i + 1) & mask) {
        const leaf_id_t entry = _index[i];
        if (entry == 0 || (_hashes[entry - 1] == hash && this->path(entry - 1) == path))
            return i;
    }
}

void CLeafTable::grow_index() {
    std::vector<leaf_id_t> old(_index.empty() ? 64 : _index.size() * 2, 0);
    old.swap(_index);
    for (leaf_id_t id = 0; id < size(); ++id)
        _index[slot_of(path(id), _hashes[id])] = id + 1;
}

leaf_id_t CLeafTable::add(const tk_string& path) {
    tk_string scratch;
    const tk_string& normal = CStoreConnection::normal_path(path, scratch);
    const uint32_t h = hash(normal);
    if (!_index.empty()) {
        const size_t slot = slot_of(normal, h);
        if (_index[slot] != 0)
            return _index[slot] - 1;
    }
    if (size() >= std::numeric_limits<leaf_id_t>::max() / 2 ||
        _text.size() + normal.size() > std::numeric_limits<uint32_t>::max())
        throw std::length_error("CLeafTable::add: no leaf id left for '" + normal + "'");
    const leaf_id_t id = static_cast<leaf_id_t>(size());
    _text += normal;
    _starts.push_back(static_cast<uint32_t>(_text.size()));
    _hashes.push_back(h);
    if (2 * size() > _index.size())
        grow_index();
    else
        _index[slot_of(normal, h)] = id + 1;
    return id;
}

std::string_view CLeafTable::path(leaf_id_t id) const {
    assert(id < size());
    return std::string_view(_text.data() + _starts[id], _starts[id + 1] - _starts[id]);
}

bool CLeafTable::find(const tk_string& path, leaf_id_t& id) const {
    if (_index.empty())
        return false;
    tk_string scratch;
    const tk_string& normal = CStoreConnection::normal_path(path, scratch);
    const leaf_id_t found = _index[slot_of(normal, hash(normal))];
    if (found == 0)
        return false;
    id = found - 1;
    return true;
}

} // namespace toolkit
