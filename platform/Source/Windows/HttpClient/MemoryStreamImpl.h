#pragma once
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "Core/AbiGuard.h"
#include "Core/ObjectImplBase.h"
#include "Core/StringFormat.h"
#include "Platform/Interfaces/IStream.h"

namespace Platform::Windows::IO::impl {

// A stream over a block of memory that the derived class owns.
template <class Derived>
class MemoryStreamBaseImpl : public Core::ObjectImplBase<Interfaces::IStream> {
public:
    size_t _abi_Read(void* buffer, size_t size, Core::IErrorCode** ppError) override {
        size_t count = 0;
        Core::AbiGuard(
            [&] {
                if (!canRead_) throw std::runtime_error("Stream is write only! Read operation is not supported");
                Core::ThrowIfNull(buffer);
                count = size < size_ - position_ ? size : static_cast<size_t>(size_ - position_);
                if (count == 0) return;
                std::memcpy(buffer, data_ + position_, count);
                position_ += count;
            },
            ppError);
        return count;
    }

    size_t _abi_Write(const void* buffer, size_t size, Core::IErrorCode** ppError) override {
        size_t count = 0;
        Core::AbiGuard(
            [&] {
                if (!canWrite_) throw std::runtime_error("Stream is read only! Write operation is not supported");
                Core::ThrowIfNull(buffer);
                if (position_ + size > size_) throw std::runtime_error("Method not implemented!");
                if (size == 0) return;
                std::memcpy(data_ + position_, buffer, size);
                position_ += size;
                count = size;
            },
            ppError);
        return count;
    }

    uint64_t GetPosition() override { return position_; }

    bool _abi_SetPosition(uint64_t position, Core::IErrorCode** ppError) override {
        return Core::AbiGuard(
            [&] {
                if (position > size_)
                    throw std::runtime_error(Core::StringFormat(
                        "Position must be smaller or equal to stream size which is %llu bytes! Position was %llu",
                        static_cast<unsigned long long>(size_), static_cast<unsigned long long>(position)));
                position_ = position;
            },
            ppError);
    }

    uint64_t GetSize(Core::IErrorCode**) override { return size_; }

    bool _abi_SetSize(uint64_t, Core::IErrorCode** ppError) override {
        return Core::AbiGuard(
            [&] {
                if (!canWrite_) throw std::runtime_error("Stream is read only! Write operation is not supported");
                throw std::runtime_error("Method not implemented!");
            },
            ppError);
    }

    bool IsSeekable() override { return true; }
    bool CanRead() override { return canRead_; }
    bool CanWrite() override { return canWrite_; }
    bool IsEndOfStream() override { return position_ == size_; }

protected:
    MemoryStreamBaseImpl(bool canRead, bool canWrite) : canRead_(canRead), canWrite_(canWrite) {}

    uint8_t* data_ = nullptr;
    uint64_t size_ = 0;
    uint64_t position_ = 0;
    bool canRead_;
    bool canWrite_;
};

} // namespace Platform::Windows::IO::impl

namespace Platform::Windows::Network::Http::impl {

// The body of a buffered response: grows by Append, or by reads straight into its spare room
// (Room, then Commit); read like any memory stream. The room is not zeroed: only committed bytes
// are ever read.
class MemoryStreamImpl final : public IO::impl::MemoryStreamBaseImpl<MemoryStreamImpl> {
public:
    MemoryStreamImpl() : MemoryStreamBaseImpl(true, false) {}

    void Append(const void* bytes, size_t count) {
        if (count == 0) return;
        std::memcpy(Room(count), bytes, count);
        Commit(count);
    }

    // Room for `count` bytes in all, so that appends up to there copy each byte once.
    void Reserve(size_t count) {
        if (count > capacity_) Grow(count);
    }

    // At least `count` bytes of room after the body; valid until the room next grows.
    uint8_t* Room(size_t count) {
        if (capacity_ - size_ < count) Grow(std::max<size_t>(size_ + count, 2 * capacity_));
        return storage_.get() + size_;
    }
    size_t Spare() const { return capacity_ - size_; }
    // The next `count` bytes of the room hold body now.
    void Commit(size_t count) { size_ += count; }

    const uint8_t* Data() const { return data_; }
    uint64_t Size() const { return size_; }

private:
    void Grow(size_t capacity) {
        auto next = std::make_unique_for_overwrite<uint8_t[]>(capacity);
        if (size_ > 0) std::memcpy(next.get(), storage_.get(), size_);
        storage_ = std::move(next);
        capacity_ = capacity;
        data_ = storage_.get();
    }

    std::unique_ptr<uint8_t[]> storage_;
    size_t capacity_ = 0;
};

} // namespace Platform::Windows::Network::Http::impl
