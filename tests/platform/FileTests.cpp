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

Core::Ptr<ISynchrounousFile> Sync(const Core::Result<IFile>& result) {
    auto converted = AsSynchronousFile(result);
    Core::ThrowIfError(converted.error);
    return converted.value;
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
    EXPECT_EQ(converted.error->GetCode(), 0u);
}

TEST(File, CreateFileGuardsAndUnsupportedAsync) {
    Core::Ptr<Core::IErrorCode> error;
    IFile* file = nullptr;
    EXPECT_FALSE(_abi_CreateFile(nullptr, &file, GenericRead, 1, OpenExisting, 0, 0, 0, 0, error.ReceiveAddress()));
    EXPECT_STREQ(error->GetMessage(), "Pointer of char must not be null!");
    error.Reset();
    EXPECT_FALSE(_abi_CreateFile("/tmp", &file, GenericRead, 1, OpenExisting, 0, 0, FileFlagOverlapped, 0,
                                 error.ReceiveAddress()));
    EXPECT_STREQ(error->GetMessage(), "Support for async files not yet implemented");
    EXPECT_EQ(file, nullptr);
}

TEST(File, WriteReadSeekAndPath) {
    TestSupport::TempDir dir;
    const std::string path = dir.File("data.bin");
    {
        auto file = Sync(CreateFileForWriting(path.c_str(), FileShareRead | FileShareDelete));
        Core::Ptr<Core::IErrorCode> error;
        EXPECT_EQ(file->_abi_Write("hello world", 11, error.ReceiveAddress()), 11u);
        EXPECT_EQ(file->_abi_GetPosition(error.ReceiveAddress()), 11u);
        Core::Ptr<Data::Interfaces::IString> where;
        ASSERT_TRUE(file->_abi_GetPath(where.ReceiveAddress(), error.ReceiveAddress()));
        EXPECT_EQ(std::string(where->GetText()), std::filesystem::canonical(path).string());
        EXPECT_TRUE(error.IsNull());
    }
    auto file = Sync(OpenFileForReading(path.c_str()));
    EXPECT_EQ(file->GetSize(), 11u);
    char buffer[64] = {};
    Core::Ptr<Core::IErrorCode> error;
    ASSERT_TRUE(file->_abi_Seek(6, error.ReceiveAddress()));
    // Asking for more than the file has returns what there is, with no error.
    EXPECT_EQ(file->_abi_Read(buffer, sizeof buffer, error.ReceiveAddress()), 5u);
    EXPECT_STREQ(buffer, "world");
    EXPECT_EQ(file->_abi_Read(buffer, 0, error.ReceiveAddress()), 0u);
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
    const std::string path = dir.File("grow.txt");
    WriteText(path, "1234");

    auto cached = OpenFileForReading(path.c_str()).value;
    auto shared = Sync([&] {
        Core::Result<IFile> r;
        _abi_CreateFile(path.c_str(), r.value.ReceiveAddress(), GenericRead, FileShareRead | FileShareWrite,
                        OpenExisting, 0, 0, 0, 0, r.error.ReceiveAddress());
        return r;
    }());
    WriteText(path, "123456789");
    EXPECT_EQ(cached->GetSize(), 4u) << "read once at open";
    EXPECT_EQ(shared->GetSize(), 9u) << "asked each time";

    WriteText(dir.File("empty.txt"), "");
    auto empty = OpenFileForReading(dir.File("empty.txt").c_str()).value;
    WriteText(dir.File("empty.txt"), "abc");
    EXPECT_EQ(empty->GetSize(), 3u) << "an empty file at open is asked again";
}

TEST(File, NoAccessGivesAFileWithoutReadAndWrite) {
    TestSupport::TempDir dir;
    const std::string path = dir.File("plain.txt");
    WriteText(path, "x");
    Core::Result<IFile> result;
    ASSERT_TRUE(_abi_CreateFile(path.c_str(), result.value.ReceiveAddress(), 0, FileShareRead, OpenExisting, 0, 0,
                                FileFlagOverlapped, 0, result.error.ReceiveAddress()));
    EXPECT_EQ(result.value->GetDesiredAccess(), 0u);
    EXPECT_EQ(result.value->GetSize(), 1u);
    EXPECT_EQ(dynamic_cast<ISynchrounousFile*>(result.value.Raw()), nullptr);
    EXPECT_STREQ(AsSynchronousFile(result).error->GetMessage(), "File could not be converted to Synchronous file.");

    Core::Ptr<Core::IErrorCode> error;
    const uint32_t mode = result.value->_abi_GetAttributes(error.ReceiveAddress());
    EXPECT_TRUE(error.IsNull());
    EXPECT_TRUE(S_ISREG(mode));
}

TEST(File, CreateForWritingTruncates) {
    TestSupport::TempDir dir;
    const std::string path = dir.File("t.txt");
    WriteText(path, "long old content");
    {
        auto file = Sync(CreateFileForStreaming(path.c_str(), 3));
        file->_abi_Write("new", 3, nullptr);
    }
    std::ifstream in(path);
    std::string content((std::istreambuf_iterator<char>(in)), {});
    EXPECT_EQ(content, "new");
}
