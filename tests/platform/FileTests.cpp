#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "Core/AbiGuard.h"
#include "Platform/Files.h"
#include "RecordingLogger.h"
#include "TempDir.h"

using namespace Platform::Windows::IO;
using Platform::Interfaces::IFile;
using Platform::Interfaces::ISynchrounousFile;

namespace {

void WriteText(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), {});
}

Core::Ptr<ISynchrounousFile> Sync(const Core::Result<IFile>& result) {
    auto converted = AsSynchronousFile(result);
    Core::ThrowIfError(converted.error);
    return converted.value;
}

Core::Result<IFile> Create(const std::string& path, uint32_t access, uint32_t share, uint32_t flags = 0) {
    Core::Result<IFile> r;
    _abi_CreateFile(path.c_str(), r.value.ReceiveAddress(), access, share, OpenExisting, 0, 0, flags, 0,
                    r.error.ReceiveAddress());
    return r;
}

} // namespace

TEST(File, OpenFailureIsAnErrorObjectNotAnException) {
    TestSupport::TempDir dir;
    const std::string missing = dir.File("missing.txt");
    auto result = OpenFileForReading(missing.c_str());
    EXPECT_TRUE(result.value.IsNull());
    ASSERT_FALSE(result.error.IsNull());
    EXPECT_EQ(std::string(result.error->GetMessage()),
              "2: Failed to open or create file at location " + missing + "::[Win32(2)] No such file or directory");
    auto converted = AsSynchronousFile(result);
    EXPECT_TRUE(converted.value.IsNull());
    EXPECT_STREQ(converted.error->GetMessage(), "File could not be converted to Synchronous file.");
}

TEST(File, CreateFileGuardsAndUnsupportedAsync) {
    Core::Ptr<Core::IErrorCode> error;
    IFile* file = nullptr;
    EXPECT_FALSE(_abi_CreateFile(nullptr, &file, GenericRead, 1, OpenExisting, 0, 0, 0, 0, error.ReceiveAddress()));
    EXPECT_STREQ(error->GetMessage(), "Pointer of char must not be null!");
    EXPECT_STREQ(Create("/tmp", GenericRead, 1, FileFlagOverlapped).error->GetMessage(),
                 "Support for async files not yet implemented");
    EXPECT_EQ(file, nullptr);
}

TEST(File, WriteReadSeekAndPath) {
    TestSupport::TempDir dir;
    const std::string path = dir.File("data.bin");
    Core::Ptr<Core::IErrorCode> error;
    {
        auto file = Sync(CreateFileForWriting(path.c_str(), FileShareRead | FileShareDelete));
        EXPECT_EQ(file->_abi_Write("hello world", 11, error.ReceiveAddress()), 11u);
        Core::Ptr<Data::Interfaces::IString> where;
        ASSERT_TRUE(file->_abi_GetPath(where.ReceiveAddress(), error.ReceiveAddress()));
        EXPECT_EQ(std::string(where->GetText()), std::filesystem::canonical(path).string());
    }
    auto file = Sync(OpenFileForReading(path.c_str()));
    EXPECT_EQ(file->GetSize(), 11u);
    char buffer[64] = {};
    ASSERT_TRUE(file->_abi_Seek(6, error.ReceiveAddress()));
    // Asking for more than the file has returns what there is, with no error.
    EXPECT_EQ(file->_abi_Read(buffer, sizeof buffer, error.ReceiveAddress()), 5u);
    EXPECT_STREQ(buffer, "world");
    ASSERT_TRUE(file->_abi_SeekToEnd(error.ReceiveAddress()));
    EXPECT_EQ(file->_abi_GetPosition(error.ReceiveAddress()), 11u);
    EXPECT_TRUE(error.IsNull());

    EXPECT_EQ(file->_abi_Read(nullptr, 4, error.ReceiveAddress()), 0u);
    EXPECT_STREQ(error->GetMessage(), "Pointer of void must not be null!");
    error.Reset();
    TestSupport::ScopedRecordingLogger logger;
    EXPECT_FALSE(file->_abi_Seek(-5, error.ReceiveAddress()));
    EXPECT_EQ(std::string(error->GetMessage()).rfind("22: Failed to move the file pointer", 0), 0u);
}

TEST(File, SizeIsCachedUnlessOthersMayWrite) {
    TestSupport::TempDir dir;
    const std::string path = dir.File("grow.txt"), empty = dir.File("empty.txt");
    WriteText(path, "1234");
    WriteText(empty, "");
    auto cached = OpenFileForReading(path.c_str()).value;
    auto shared = Sync(Create(path, GenericRead, FileShareRead | FileShareWrite));
    auto wasEmpty = OpenFileForReading(empty.c_str()).value;
    WriteText(path, "123456789");
    WriteText(empty, "abc");
    EXPECT_EQ(cached->GetSize(), 4u) << "read once at open";
    EXPECT_EQ(shared->GetSize(), 9u) << "asked each time";
    EXPECT_EQ(wasEmpty->GetSize(), 3u) << "an empty file at open is asked again";
}

TEST(File, NoAccessGivesAFileWithoutReadAndWrite) {
    TestSupport::TempDir dir;
    const std::string path = dir.File("plain.txt");
    WriteText(path, "x");
    auto result = Create(path, 0, FileShareRead, FileFlagOverlapped);
    ASSERT_FALSE(result.value.IsNull());
    EXPECT_EQ(result.value->GetSize(), 1u);
    EXPECT_EQ(dynamic_cast<ISynchrounousFile*>(result.value.Raw()), nullptr);
    EXPECT_STREQ(AsSynchronousFile(result).error->GetMessage(), "File could not be converted to Synchronous file.");
    Core::Ptr<Core::IErrorCode> error;
    EXPECT_TRUE(S_ISREG(result.value->_abi_GetAttributes(error.ReceiveAddress())));
    EXPECT_TRUE(error.IsNull());
}

TEST(File, CreateForStreamingTruncates) {
    TestSupport::TempDir dir;
    const std::string path = dir.File("t.txt");
    WriteText(path, "long old content");
    Sync(CreateFileForStreaming(path.c_str(), 3))->_abi_Write("new", 3, nullptr);
    EXPECT_EQ(ReadText(path), "new");
}
