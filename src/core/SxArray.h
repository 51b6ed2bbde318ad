#pragma once

#include "SxTypes.h"

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

/// Allocator that leaves trivial elements uninitialised, see SxArray.
template<class T>
class SxRawAllocator : public std::allocator<T> {
public:
    template<class U>
    struct rebind {
        using other = SxRawAllocator<U>;
    };
    using std::allocator<T>::allocator;
    SxRawAllocator() = default;
    template<class U>
    explicit SxRawAllocator(const SxRawAllocator<U>&) noexcept {}

    template<class U>
    void construct(U* p) noexcept(noexcept(::new (static_cast<void*>(p)) U)) {
        ::new (static_cast<void*>(p)) U;
    }
    template<class U, class... Args>
    void construct(U* p, Args&&... args) {
        std::allocator_traits<std::allocator<T>>::construct(static_cast<std::allocator<T>&>(*this), p,
                                                            std::forward<Args>(args)...);
    }
};

/// Contiguous array with 64-bit indices, over std::vector. An index isn't checked. Other than there, elements
/// of trivial types are not initialised by the sized constructor and by resize(): such an array is about to
/// be filled from a file, and reading a map of 200 MiB would otherwise write it twice. Copies copy the
/// elements; moves are cheap. Not locked.
template<class T>
class SxArray {
public:
    using Store = std::vector<T, SxRawAllocator<T>>;
    using iterator = typename Store::iterator;
    using const_iterator = typename Store::const_iterator;
    using value_type = T;

    SxArray() = default;
    /// Array of `n` elements.
    explicit SxArray(int64 n) : elems(static_cast<size_t>(n)) {}
    SxArray(std::initializer_list<T> list) : elems(list) {}
    /// Array of the elements of any range with begin() and end(), such as an SxList.
    template<class Range>
    requires requires(const Range& r) {
        std::begin(r);
        std::end(r);
        r.getSize();
    }
    explicit SxArray(const Range& list) : elems(std::begin(list), std::end(list)) {}

    /// Number of elements.
    int64 getSize() const noexcept { return static_cast<int64>(elems.size()); }
    T& operator()(int64 i) { return elems[static_cast<size_t>(i)]; }
    const T& operator()(int64 i) const { return elems[static_cast<size_t>(i)]; }
    T* data() noexcept { return elems.data(); }
    const T* data() const noexcept { return elems.data(); }

    /// Sets every element to `value`.
    void set(const T& value) { std::fill(elems.begin(), elems.end(), value); }
    /// Changes the size to `n`; with `keep` the old elements up to `n` stay, else their values are
    /// unspecified.
    void resize(int64 n, bool keep = false) {
        if (!keep) elems.clear();
        elems.resize(static_cast<size_t>(n));
    }
    void reserve(int64 n) { elems.reserve(static_cast<size_t>(n)); }
    void append(const T& value) { elems.push_back(value); }
    void append(T&& value) { elems.push_back(std::move(value)); }
    void removeAll() { elems = Store(); }

    iterator begin() noexcept { return elems.begin(); }
    iterator end() noexcept { return elems.end(); }
    const_iterator begin() const noexcept { return elems.begin(); }
    const_iterator end() const noexcept { return elems.end(); }

    bool operator==(const SxArray&) const = default;

private:
    Store elems;
};
