#pragma once

#include "SxList.h"

#include <tsl/ordered_map.h>
#include <tsl/robin_map.h>

/// Map that keeps insertion order. operator() on a missing key appends it with a default value. Not locked.
template<class K, class V, class Hash = std::hash<K>>
class SxMap {
public:
    V& operator()(const K& key) { return items[key]; }
    /// Raises std::out_of_range on a missing key.
    const V& operator()(const K& key) const { return items.at(key); }
    bool containsKey(const K& key) const { return items.contains(key); }
    /// The value of `key`, or null; valid until the map changes.
    const V* findKey(const K& key) const {
        auto it = items.find(key);
        return it == items.end() ? nullptr : &it->second;
    }
    /// The keys in order of their insertion.
    SxList<K> getKeys() const {
        SxList<K> keys;
        for (const auto& [key, value] : items)
            keys.append(key);
        return keys;
    }
    /// Position of `key` in insertion order, or -1.
    int64 getValueIdx(const K& key) const {
        auto it = items.find(key);
        return it == items.end() ? -1 : std::distance(items.begin(), it);
    }
    bool removeKey(const K& key) { return items.erase(key) > 0; }
    void removeAll() { items.clear(); }
    int64 getSize() const noexcept { return static_cast<int64>(items.size()); }
    auto begin() const noexcept { return items.begin(); }
    auto end() const noexcept { return items.end(); }

    bool operator==(const SxMap& other) const { return items == other.items; }

private:
    tsl::ordered_map<K, V, Hash> items;
};

/// Hash table without order, for large tables: open addressing with robin-hood probing. It grows as
/// tsl::robin_map does, not by a rule of its own: that is several times faster than chaining, and nobody
/// depends on the capacity. For keys that are block indices SxIndexSet serves better. Not locked.
template<class K, class V, class Hash = std::hash<K>>
class SxHashTable {
public:
    bool contains(const K& key) const { return items.contains(key); }
    /// The value of `key`, or null; valid until the table changes.
    const V* findPos(const K& key) const {
        auto it = items.find(key);
        return it == items.end() ? nullptr : &it->second;
    }
    /// The value of `key`, made by default where it is missing.
    V& value(const K& key) { return items[key]; }
    bool remove(const K& key) { return items.erase(key) > 0; }
    void removeAll() { items.clear(); }
    /// Makes room for `n` entries.
    void resize(int64 n) { items.reserve(static_cast<size_t>(n)); }
    int64 getSize() const noexcept { return static_cast<int64>(items.size()); }

private:
    tsl::robin_map<K, V, Hash> items;
};
