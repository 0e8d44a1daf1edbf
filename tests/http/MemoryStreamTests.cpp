#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "Core/Ptr.h"
#include "MemoryStreamImpl.h"

using Platform::Windows::Network::Http::impl::MemoryStreamImpl;

namespace {

// A writable fixed block, to reach the write rules of the base.
class FixedStream final : public Platform::Windows::IO::impl::MemoryStreamBaseImpl<FixedStream> {
public:
    FixedStream() : MemoryStreamBaseImpl(true, true) {
        data_ = block.data();
        size_ = block.size();
    }
    std::array<uint8_t, 4> block{};
};

std::string ErrorText(const Core::Ptr<Core::IErrorCode>& error) { return error.Raw() ? error->GetMessage() : ""; }

TEST(MemoryStream, AppendThenReadInPiecesAndSeekUpToSize) {
    auto stream = Core::MakeObject<MemoryStreamImpl>();
    EXPECT_TRUE(stream->IsEndOfStream());
    stream->Append("hello ", 6);
    stream->Append("world", 5);
    char buffer[8] = {};
    EXPECT_EQ(stream->_abi_Read(buffer, 8, nullptr), 8u);
    EXPECT_EQ(std::string(buffer, 8), "hello wo");
    EXPECT_EQ(stream->_abi_Read(buffer, 8, nullptr), 3u);
    EXPECT_EQ(std::string(buffer, 3), "rld");
    EXPECT_EQ(stream->_abi_Read(buffer, 8, nullptr), 0u);
    EXPECT_TRUE(stream->IsEndOfStream());
    // Appending leaves the position alone.
    stream->Append("!", 1);
    EXPECT_EQ(stream->GetPosition(), 11u);
    EXPECT_EQ(stream->_abi_Read(buffer, 8, nullptr), 1u);

    Core::Ptr<Core::IErrorCode> error;
    EXPECT_FALSE(stream->_abi_SetPosition(13, error.ReceiveAddress()));
    EXPECT_EQ(ErrorText(error), "Position must be smaller or equal to stream size which is 12 bytes! Position was 13");
    EXPECT_EQ(stream->GetPosition(), 12u);
    EXPECT_TRUE(stream->_abi_SetPosition(1, nullptr));
    EXPECT_FALSE(stream->IsEndOfStream());
}

TEST(MemoryStream, BodyTakenOverByExchangeReadsAfterSync) {
    using Platform::Windows::Network::Http::BodyBuffer;
    BodyBuffer held;
    held.Append("abcdef", 6);
    held.DropFront(2); // what a read took already
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(held.Data()), held.Size()), "cdef");
    uint8_t* room = held.Room(100); // grows, keeping the bytes
    std::memcpy(room, "gh", 2);
    held.Commit(2);

    auto stream = Core::MakeObject<MemoryStreamImpl>();
    stream->Body().Swap(held);
    stream->Sync();
    EXPECT_TRUE(held.Empty());
    char buffer[8] = {};
    EXPECT_EQ(stream->_abi_Read(buffer, 8, nullptr), 6u);
    EXPECT_EQ(std::string(buffer, 6), "cdefgh");
    stream->Append("ij", 2); // appends after a swap land behind the bytes taken over
    EXPECT_EQ(stream->Size(), 8u);
    EXPECT_EQ(std::memcmp(stream->Data() + 6, "ij", 2), 0);
}

TEST(MemoryStream, ReadOnlyRefusesWritesAndSizeChanges) {
    auto stream = Core::MakeObject<MemoryStreamImpl>();
    Core::Ptr<Core::IErrorCode> error;
    EXPECT_EQ(stream->_abi_Write("x", 1, error.ReceiveAddress()), 0u);
    EXPECT_EQ(ErrorText(error), "Stream is read only! Write operation is not supported");
    error = nullptr;
    EXPECT_FALSE(stream->_abi_SetSize(10, error.ReceiveAddress()));
    EXPECT_EQ(ErrorText(error), "Stream is read only! Write operation is not supported");
    error = nullptr;
    EXPECT_EQ(stream->_abi_Read(nullptr, 1, error.ReceiveAddress()), 0u);
    EXPECT_EQ(ErrorText(error), "Pointer of void must not be null!");
}

TEST(MemoryStream, WritableBlockDoesNotGrow) {
    auto stream = Core::MakeObject<FixedStream>();
    Core::Ptr<Core::IErrorCode> error;
    EXPECT_EQ(stream->_abi_Write("abc", 3, nullptr), 3u);
    EXPECT_EQ(stream->_abi_Write("de", 2, error.ReceiveAddress()), 0u);
    EXPECT_EQ(ErrorText(error), "Method not implemented!");
    EXPECT_EQ(std::memcmp(stream->block.data(), "abc", 3), 0);
    error = nullptr;
    EXPECT_FALSE(stream->_abi_SetSize(10, error.ReceiveAddress()));
    EXPECT_EQ(ErrorText(error), "Method not implemented!");
}

} // namespace
