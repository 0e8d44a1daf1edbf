#pragma once
#include <atomic>
#include <cstdint>
#include <mutex>
#include <utility>

#include "Core/IObject.h"

namespace Core {

namespace detail {
// Shared reference counting: a new object starts at 1, the creator's reference.
inline uint32_t ReleaseCount(std::atomic<uint32_t>& count) noexcept {
    const uint32_t before = count.fetch_sub(1, std::memory_order_seq_cst);
    return before <= 1 ? 0 : before - 1;
}
} // namespace detail

// Implementation base for objects that carry their own (non-recursive) lock.
template <class I>
class ObjectImplBase : public I {
public:
    void AddReference() noexcept override { refCount_.fetch_add(1, std::memory_order_seq_cst); }

    uint32_t Release() noexcept override {
        const uint32_t left = detail::ReleaseCount(refCount_);
        if (left == 0) delete this;
        return left;
    }

    void Lock() override { mutex_.lock(); }
    bool TryLock() override { return mutex_.try_lock(); }
    void Unlock() override { mutex_.unlock(); }

    ObjectImplBase(const ObjectImplBase&) = delete;
    ObjectImplBase& operator=(const ObjectImplBase&) = delete;

protected:
    ObjectImplBase() = default;
    // For implementation bases that take constructor arguments.
    template <class... Args>
    explicit ObjectImplBase(Args&&... args) : I(std::forward<Args>(args)...) {}
    ~ObjectImplBase() override = default;

private:
    std::mutex mutex_;
    std::atomic<uint32_t> refCount_{1};
};

// Light base for objects that need no lock: Lock and Unlock do nothing, TryLock fails.
template <class I>
class LightObjectImplBase : public I {
public:
    void AddReference() noexcept override { refCount_.fetch_add(1, std::memory_order_seq_cst); }

    uint32_t Release() noexcept override {
        const uint32_t left = detail::ReleaseCount(refCount_);
        if (left == 0) delete this;
        return left;
    }

    void Lock() override {}
    bool TryLock() override { return false; }
    void Unlock() override {}

    LightObjectImplBase(const LightObjectImplBase&) = delete;
    LightObjectImplBase& operator=(const LightObjectImplBase&) = delete;

protected:
    LightObjectImplBase() = default;
    ~LightObjectImplBase() override = default;

private:
    std::atomic<uint32_t> refCount_{1};
};

} // namespace Core
