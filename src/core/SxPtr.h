#pragma once

#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

/// Shared pointer. Copies may live on several threads; the object isn't guarded by that.
template<class T>
class SxPtr {
public:
    SxPtr() = default;
    SxPtr(std::nullptr_t) {}
    template<class U>
    requires std::is_convertible_v<U*, T*> SxPtr(const SxPtr<U>& other) : object(other.shared()) {}
    explicit SxPtr(std::shared_ptr<T> ptr) : object(std::move(ptr)) {}

    /// Makes the object and its first pointer.
    template<class... Args>
    static SxPtr create(Args&&... args) {
        return SxPtr(std::make_shared<T>(std::forward<Args>(args)...));
    }
    T* getPtr() const noexcept { return object.get(); }
    T* operator->() const noexcept { return object.get(); }
    T& operator*() const noexcept { return *object; }
    explicit operator bool() const noexcept { return object != nullptr; }
    const std::shared_ptr<T>& shared() const noexcept { return object; }

    friend bool operator==(const SxPtr& a, const SxPtr& b) noexcept { return a.object == b.object; }

private:
    std::shared_ptr<T> object;
};

/// Shared pointer to an object that isn't changed through it.
template<class T>
using SxConstPtr = SxPtr<const T>;
