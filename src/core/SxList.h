#pragma once

#include "SxTypes.h"

#include <algorithm>
#include <functional>
#include <initializer_list>
#include <list>
#include <utility>
#include <vector>

#include <tsl/ordered_set.h>

/// Doubly linked list with its length; keeps insertion order, allows duplicates. Indexing walks from the
/// nearer end. Nodes (iterators) stay valid until their element is removed. Not locked.
template<class T>
class SxList {
public:
    using iterator = typename std::list<T>::iterator;
    using const_iterator = typename std::list<T>::const_iterator;
    using value_type = T;

    SxList() = default;
    SxList(std::initializer_list<T> list) : items(list) {}

    int64 getSize() const noexcept { return static_cast<int64>(items.size()); }
    bool isEmpty() const noexcept { return items.empty(); }

    SxList& append(T value) {
        items.push_back(std::move(value));
        return *this;
    }
    SxList& append(const SxList& other) {
        std::list<T> copy(other.items);
        items.splice(items.end(), copy);
        return *this;
    }
    SxList& operator<<(T value) { return append(std::move(value)); }
    SxList& operator<<(const SxList& other) { return append(other); }
    void prepend(T value) { items.push_front(std::move(value)); }
    /// Puts `value` in front of element `i`; `i` is at most getSize().
    void insert(int64 i, T value) { items.insert(at(i), std::move(value)); }

    T& first() { return items.front(); }
    const T& first() const { return items.front(); }
    T& last() { return items.back(); }
    const T& last() const { return items.back(); }
    T& operator()(int64 i) { return *at(i); }
    const T& operator()(int64 i) const { return *const_cast<SxList*>(this)->at(i); }

    bool contains(const T& value) const { return findPos(value) >= 0; }
    /// Index of the first element that equals `value`, or -1.
    int64 findPos(const T& value) const {
        auto it = std::find(items.begin(), items.end(), value);
        return it == items.end() ? -1 : std::distance(items.begin(), it);
    }
    /// Removes the first element that equals `value`; nothing if there is none.
    void removeElement(const T& value) {
        auto it = std::find(items.begin(), items.end(), value);
        if (it != items.end()) items.erase(it);
    }
    void removeItem(iterator node) { items.erase(node); }
    void removeFirst() { items.pop_front(); }
    void removeLast() { items.pop_back(); }
    void removeAll() { items.clear(); }

    iterator begin() noexcept { return items.begin(); }
    iterator end() noexcept { return items.end(); }
    const_iterator begin() const noexcept { return items.begin(); }
    const_iterator end() const noexcept { return items.end(); }

    bool operator==(const SxList&) const = default;

private:
    iterator at(int64 i) {
        const int64 n = getSize();
        return i <= n / 2 ? std::next(items.begin(), i) : std::prev(items.end(), n - i);
    }

    std::list<T> items;
};

/// List in ascending order. A new value goes in front of the first element that is greater, after equal
/// ones.
template<class T>
class SxSortedList {
public:
    SxSortedList() = default;
    explicit SxSortedList(const SxList<T>& list) {
        for (const T& value : list)
            append(value);
    }

    /// Puts `value` in its place and gives its index.
    int64 append(T value) {
        auto at = std::upper_bound(items.begin(), items.end(), value);
        return std::distance(items.begin(), items.insert(at, std::move(value)));
    }
    int64 getSize() const noexcept { return static_cast<int64>(items.size()); }
    const T& operator()(int64 i) const { return items[static_cast<size_t>(i)]; }
    auto begin() const noexcept { return items.begin(); }
    auto end() const noexcept { return items.end(); }

private:
    std::vector<T> items;
};

/// List that drops a value that it already holds; the order is that of first insertion.
template<class T, class Hash = std::hash<T>>
class SxUniqueList {
public:
    SxUniqueList() = default;

    SxUniqueList& append(T value) {
        items.insert(std::move(value));
        return *this;
    }
    SxUniqueList& operator<<(T value) { return append(std::move(value)); }
    SxUniqueList& operator<<(const SxList<T>& list) {
        for (const T& value : list)
            append(value);
        return *this;
    }
    int64 getSize() const noexcept { return static_cast<int64>(items.size()); }
    const T& operator()(int64 i) const { return *items.nth(static_cast<size_t>(i)); }
    bool contains(const T& value) const { return items.contains(value); }
    void removeAll() { items.clear(); }
    auto begin() const noexcept { return items.begin(); }
    auto end() const noexcept { return items.end(); }

    bool operator==(const SxUniqueList& other) const { return items == other.items; }

private:
    tsl::ordered_set<T, Hash> items;
};
