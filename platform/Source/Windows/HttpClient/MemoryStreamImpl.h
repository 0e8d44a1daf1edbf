#pragma once
#include <cstdint>
#include <cstring>
#include <stdexcept>

#include "BodyBuffer.h"
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

// The body of a buffered response: grows by Append, or by the transport's reads into its body
// buffer (then Sync); read like any memory stream.
class MemoryStreamImpl final : public IO::impl::MemoryStreamBaseImpl<MemoryStreamImpl> {
public:
    MemoryStreamImpl() : MemoryStreamBaseImpl(true, false) {}

    void Append(const void* bytes, size_t count) {
        body_.Append(bytes, count);
        Sync();
    }

    // The bytes themselves, for reads straight into them; Sync once they changed.
    BodyBuffer& Body() { return body_; }
    void Sync() {
        data_ = body_.Data();
        size_ = body_.Size();
    }

    const uint8_t* Data() const { return data_; }
    uint64_t Size() const { return size_; }

private:
    BodyBuffer body_;
};

} // namespace Platform::Windows::Network::Http::impl
