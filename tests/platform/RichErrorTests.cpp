#include <gtest/gtest.h>

#include <cerrno>

#include "Core/Ptr.h"
#include "Platform/RichError.h"
#include "RecordingLogger.h"

using namespace Platform::Windows::RichError;

TEST(RichError, FormatsEachFamily) {
    EXPECT_EQ(FormatError(0, 77), "no error");
    EXPECT_EQ(FormatError(0, 77, "P"), "P::no error");
    EXPECT_EQ(FormatError(9, 1), "INVALID ERROR TYPE");
    EXPECT_EQ(FormatError(9, 1, "P"), "P::INVALID ERROR TYPE");
    EXPECT_EQ(FormatError(ErrorTypeWin32, ENOENT), "[Win32(2)] No such file or directory");
    EXPECT_EQ(FormatError(ErrorTypeWin32, 99999), "[Win32(99999)] <Error message could not be obtained>");
    EXPECT_EQ(FormatError(ErrorTypeWin32, 0xFFFFFFFF), "[Win32(4294967295)] <Error message could not be obtained>");
    EXPECT_EQ(FormatError(ErrorTypeWinHttp, 12002), "[WinHttp(12002)] The operation timed out.");
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

TEST(RichError, ThrowWin32LogsFirstThenThrows) {
    TestSupport::ScopedRecordingLogger logger;
    try {
        ThrowWin32(5, "Failed to load library: x.so");
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "5: Failed to load library: x.so");
    }
    const auto lines = logger->Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "FATAL: 5: Failed to load library: x.so [Platform::Windows::RichError::ThrowWin32]");
    EXPECT_EQ(lines[1].text, "STACK 2 64");

    errno = EACCES;
    EXPECT_THROW(ThrowLastWin32("denied"), std::runtime_error);
    EXPECT_EQ(logger->Lines()[2].text, "FATAL: 13: denied [Platform::Windows::RichError::ThrowWin32]");
    EXPECT_THROW(ThrowWinHttp(12002, "timeout"), std::runtime_error);
    EXPECT_EQ(logger->Lines()[4].text, "FATAL: 12002: timeout [Platform::Windows::RichError::ThrowWinHttp]");
}

TEST(RichError, MakeWin32ErrorObjectGivesAValue) {
    Core::Ptr<Core::IErrorCode> error;
    MakeWin32ErrorObject(ENOENT, "Opening", error.ReceiveAddress());
    EXPECT_STREQ(error->GetMessage(), "2: Opening::[Win32(2)] No such file or directory");
    Core::Ptr<Core::IErrorCode> bare;
    MakeWin32ErrorObject(ENOENT, "", bare.ReceiveAddress());
    EXPECT_STREQ(bare->GetMessage(), "2: [Win32(2)] No such file or directory");
}
