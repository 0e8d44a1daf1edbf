#pragma once
#include <cstddef>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "Core/IObject.h"
#include "Core/TypeName.h"

namespace Core {

namespace detail {
[[noreturn]] void ThrowNullPointer(const std::string& typeName);
[[noreturn]] void ThrowNotAccessible(const std::string& typeName);
[[noreturn]] void ThrowInvalidAddress(const void* address);
[[noreturn]] void ThrowCannotCast(const std::string& from, const char* label, const std::string& to);
[[noreturn]] void ThrowMustBeNullForReceive();
// True when the address is known to be freed memory. Only a sanitizer build can tell without
// touching the memory; elsewhere it answers false and the type walk is the test.
bool AddressIsReclaimed(const void* address) noexcept;
} // namespace detail

// Owning pointer to a reference-counted object: one reference per copy.
template <class T>
class Ptr {
    static_assert(std::is_base_of_v<IObject, T>, "Ptr<T> holds objects rooted in Core::IObject");

public:
    using element_type = T;

    Ptr() noexcept = default;
    Ptr(std::nullptr_t) noexcept {}
    // Borrows the pointer: the Ptr takes a reference of its own.
    explicit Ptr(T* object) noexcept : p_(object) {
        if (p_) p_->AddReference();
    }
    // Adopts a reference the caller already owns (the one `new` gives, or an out parameter's).
    static Ptr Attach(T* object) noexcept {
        Ptr result;
        result.p_ = object;
        return result;
    }

    Ptr(const Ptr& other) noexcept : p_(other.p_) {
        if (p_) p_->AddReference();
    }
    Ptr(Ptr&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    Ptr(const Ptr<U>& other) noexcept : p_(other.Raw()) {
        if (p_) p_->AddReference();
    }
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    Ptr(Ptr<U>&& other) noexcept : p_(other.Detach()) {}

    ~Ptr() {
        if (p_) p_->Release();
    }

    Ptr& operator=(const Ptr& other) noexcept {
        Ptr(other).Swap(*this);
        return *this;
    }
    Ptr& operator=(Ptr&& other) noexcept {
        Ptr(std::move(other)).Swap(*this);
        return *this;
    }
    Ptr& operator=(std::nullptr_t) noexcept {
        Reset();
        return *this;
    }

    void Swap(Ptr& other) noexcept { std::swap(p_, other.p_); }
    void Reset() noexcept {
        if (T* old = std::exchange(p_, nullptr)) old->Release();
    }

    // The pointer, or the null-pointer exception.
    T* Get() const {
        if (!p_) detail::ThrowNullPointer(TypeName<T>());
        return p_;
    }
    T* operator->() const { return Get(); }
    T& operator*() const { return *Get(); }

    // The stored pointer without any test, for code that has just tested it.
    T* Raw() const noexcept { return p_; }

    // Null gives true at once; otherwise the pointer must still address a live object.
    bool IsNull() const {
        if (!p_) return true;
        if (detail::AddressIsReclaimed(p_) || dynamic_cast<const void*>(p_) == nullptr) detail::ThrowInvalidAddress(p_);
        return false;
    }
    explicit operator bool() const { return !IsNull(); }

    // A new owning Ptr to another interface of the same object.
    template <class U>
    Ptr<U> As() const {
        if (!p_) detail::ThrowNullPointer(TypeName<T>());
        U* cast = dynamic_cast<U*>(p_);
        if (!cast) detail::ThrowCannotCast(TypeName<T>(), " Implementation: ", TypeName<U>());
        return Ptr<U>(cast);
    }

    // A borrowed pointer to another interface of the same object.
    template <class U>
    U* Cast() const {
        if (!p_) detail::ThrowNullPointer(TypeName<T>());
        U* cast = dynamic_cast<U*>(p_);
        if (!cast) detail::ThrowCannotCast(TypeName<T>(), " Desired Interface: ", TypeName<U>());
        return cast;
    }

    // Address to hand to a function that fills in an owned pointer; the Ptr must be empty.
    T** ReceiveAddress() {
        if (p_) detail::ThrowMustBeNullForReceive();
        return &p_;
    }

    // Gives the pointer and its reference to the caller and leaves the Ptr empty.
    T* Detach() noexcept { return std::exchange(p_, nullptr); }

    friend bool operator==(const Ptr& a, const Ptr& b) noexcept { return a.p_ == b.p_; }
    friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }

private:
    T* p_ = nullptr;
};

// Ptr for an object's own fields: dereference fails with the shorter "not accessible" text.
template <class T>
class CheckedPtr : public Ptr<T> {
public:
    using Ptr<T>::Ptr;
    CheckedPtr() noexcept = default;
    CheckedPtr(Ptr<T> other) noexcept : Ptr<T>(std::move(other)) {}

    T* operator->() const {
        if (!this->Raw()) detail::ThrowNotAccessible(TypeName<T>());
        return this->Raw();
    }
    T& operator*() const { return *operator->(); }
};

// Makes an object and adopts the reference that `new` gives.
template <class T, class... Args>
Ptr<T> MakeObject(Args&&... args) {
    return Ptr<T>::Attach(new T(std::forward<Args>(args)...));
}

} // namespace Core
