#include <gtest/gtest.h>

#include <cerrno>

#include "Core/Ptr.h"
#include "MessageOf.h"
#include "Platform/RichError.h"
#include "RecordingLogger.h"

using namespace Platform::Windows::RichError;

TEST(RichError, FormatsEachFamily) {
    EXPECT_EQ(FormatError(0, 77, "P"), "P::no error");
    EXPECT_EQ(FormatError(9, 1, "P"), "P::INVALID ERROR TYPE");
    EXPECT_EQ(FormatError(ErrorTypeWin32, ENOENT), "[Win32(2)] No such file or directory");
    EXPECT_EQ(FormatError(ErrorTypeWin32, 0xFFFFFFFF), "[Win32(4294967295)] <Error message could not be obtained>");
    EXPECT_EQ(FormatError(ErrorTypeWinHttp, 12017, "Send"), "Send::[WinHttp(12017)] The operation has been canceled.");
    EXPECT_EQ(FormatError(ErrorTypeWinHttp, 12999),
              "[WinHttp(12999)] <Error message could not be obtained from WinHttp.dll>");
    EXPECT_EQ(FormatError(ErrorTypeNtStatus, 5), "[NTSTATUS(5)] <Error message could not be obtained from Ntdll.dll>");
    EXPECT_EQ(FormatError(ErrorTypeHResult, 0x80004005), "[HResult(2147500037)] Unspecified error");
    EXPECT_EQ(FormatError(ErrorTypeHResult, 0x8123), "[HResult(33059)] Unknown error 0x00008123");
    EXPECT_EQ(FormatCustomError({ErrorTypeCustom, 0}), "[Custom(0)] No error");
    EXPECT_EQ(FormatCustomError({ErrorTypeCustom, 1}), "[Custom(1)] Start can be called only once");
    EXPECT_EQ(FormatCustomError({ErrorTypeCustom, 7}), "[Custom(1)] Invalid error code");
}

TEST(RichError, ThrowsLogFirstWithAStackTrace) {
    TestSupport::ScopedRecordingLogger logger;
    EXPECT_EQ(TestSupport::MessageOf([] { ThrowWin32(5, "Failed to load library: x.so"); }),
              "5: Failed to load library: x.so");
    errno = EACCES;
    EXPECT_EQ(TestSupport::MessageOf([] { ThrowLastWin32("denied"); }), "13: denied");
    EXPECT_EQ(TestSupport::MessageOf([] { ThrowWinHttp(12002, "timeout"); }), "12002: timeout");
    std::vector<std::string> texts;
    for (const auto& line : logger->Lines()) texts.push_back(line.text);
    EXPECT_EQ(texts, (std::vector<std::string>{
                         "FATAL: 5: Failed to load library: x.so [Platform::Windows::RichError::ThrowWin32]", "STACK 2 64",
                         "FATAL: 13: denied [Platform::Windows::RichError::ThrowWin32]", "STACK 2 64",
                         "FATAL: 12002: timeout [Platform::Windows::RichError::ThrowWinHttp]", "STACK 2 64"}));
}

TEST(RichError, MakeWin32ErrorObjectGivesAValue) {
    Core::Ptr<Core::IErrorCode> error, bare;
    MakeWin32ErrorObject(ENOENT, "Opening", error.ReceiveAddress());
    EXPECT_STREQ(error->GetMessage(), "2: Opening::[Win32(2)] No such file or directory");
    MakeWin32ErrorObject(ENOENT, "", bare.ReceiveAddress());
    EXPECT_STREQ(bare->GetMessage(), "2: [Win32(2)] No such file or directory");
}
