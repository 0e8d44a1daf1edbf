#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>

namespace Platform::Windows::Network::Http {

// Bytes of a response body in one growing block. The transport holds what arrives before a read
// in one, and a buffered response keeps its body in another; the two can change places, so that
// the bytes of a whole body need not be copied from one to the other. Room past the end is not
// zeroed: only committed bytes are ever read.
class BodyBuffer {
public:
    BodyBuffer() = default;
    BodyBuffer(BodyBuffer&& other) noexcept { Swap(other); }
    BodyBuffer& operator=(BodyBuffer&& other) noexcept {
        BodyBuffer moved(std::move(other));
        Swap(moved);
        return *this;
    }

    uint8_t* Data() noexcept { return storage_.get(); }
    const uint8_t* Data() const noexcept { return storage_.get(); }
    size_t Size() const noexcept { return size_; }
    size_t Capacity() const noexcept { return capacity_; }
    size_t Spare() const noexcept { return capacity_ - size_; }
    bool Empty() const noexcept { return size_ == 0; }

    void Reserve(size_t capacity) {
        if (capacity > capacity_) Grow(capacity);
    }
    // At least `count` bytes of room after the end, growing by half again at least.
    uint8_t* Room(size_t count) {
        if (Spare() < count) Grow(std::max(size_ + count, capacity_ + capacity_ / 2));
        return storage_.get() + size_;
    }
    // The next `count` bytes of the room hold body now.
    void Commit(size_t count) noexcept { size_ += count; }
    void Append(const void* bytes, size_t count) {
        if (count == 0) return;
        std::memcpy(Room(count), bytes, count);
        size_ += count;
    }
    // Drops the first `count` bytes.
    void DropFront(size_t count) noexcept {
        if (count < size_) std::memmove(storage_.get(), storage_.get() + count, size_ - count);
        size_ -= std::min(count, size_);
    }
    void Clear() noexcept { size_ = 0; }
    void Swap(BodyBuffer& other) noexcept {
        std::swap(storage_, other.storage_);
        std::swap(size_, other.size_);
        std::swap(capacity_, other.capacity_);
    }

private:
    void Grow(size_t capacity) {
        auto next = std::make_unique_for_overwrite<uint8_t[]>(capacity);
        if (size_ > 0) std::memcpy(next.get(), storage_.get(), size_);
        storage_ = std::move(next);
        capacity_ = capacity;
    }

    std::unique_ptr<uint8_t[]> storage_;
    size_t size_ = 0;
    size_t capacity_ = 0;
};

} // namespace Platform::Windows::Network::Http
