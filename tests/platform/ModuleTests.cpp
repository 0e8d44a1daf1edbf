#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "Core/AbiGuard.h"
#include "Platform/Module.h"
#include "RecordingLogger.h"

using Platform::Windows::Module::CaptureStackTrace;
using Platform::Windows::Module::CreateDll;

// Kept out of line and visible so the trace below can name it.
__attribute__((noinline, visibility("default"))) std::string TraceFromNamedTestFunction(unsigned skip, int depth) {
    std::string text = CaptureStackTrace(skip, depth).text;
    asm volatile("" ::: "memory");
    return text;
}

TEST(Dll, AModuleAlreadyLoadedStaysLoaded) {
    // libTellarData.so.0 (its SONAME) is a dependency of this test, so it is in the process already.
    Core::Ptr<Platform::Interfaces::IDll> dll;
    Core::Ptr<Core::IErrorCode> error;
    ASSERT_TRUE(CreateDll("libTellarData.so.0", dll.ReceiveAddress(), error.ReceiveAddress()));
    EXPECT_TRUE(dll->HasSymbol("Data_CreateArray"));
    EXPECT_FALSE(dll->HasSymbol("Data_NoSuchThing"));
    EXPECT_EQ(dll->_abi_GetSymbol("Data_CreateArray", error.ReceiveAddress()), dlsym(RTLD_DEFAULT, "Data_CreateArray"));
    EXPECT_EQ(dll->_abi_GetSymbol("Data_Missing", error.ReceiveAddress()), nullptr);
    EXPECT_STREQ(error->GetMessage(), "2: Data_Missing");
    dll.Reset();
    void* still = dlopen("libTellarData.so.0", RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(still, nullptr);
    dlclose(still);
}

TEST(Dll, AMissingModuleIsLoggedAndRefused) {
    TestSupport::ScopedRecordingLogger logger;
    Core::Ptr<Platform::Interfaces::IDll> dll;
    Core::Ptr<Core::IErrorCode> error;
    EXPECT_FALSE(CreateDll("libNoSuchModule.so", dll.ReceiveAddress(), error.ReceiveAddress()));
    EXPECT_EQ(std::string(error->GetMessage()), "2: Failed to load library: libNoSuchModule.so");
    const auto lines = logger->Lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0].text.rfind("DEBUG: Failed to load dll [libNoSuchModule.so] directly. Trying with "
                                  "LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR",
                                  0),
              0u);
    EXPECT_EQ(lines[1].text.rfind("FATAL: 2: Failed to load library: libNoSuchModule.so", 0), 0u);
}

TEST(StackTrace, NamesTheCallerAndNumbersFrames) {
    const std::string text = TraceFromNamedTestFunction(0, 8);
    EXPECT_EQ(text.rfind("\t[0]. [0x", 0), 0u) << text;
    EXPECT_NE(text.find("TraceFromNamedTestFunction"), std::string::npos) << text;
    EXPECT_NE(text.find(", [foundation_tests], foundation_tests!"), std::string::npos) << text;
    EXPECT_NE(text.find("\t[1]. "), std::string::npos);

    // Skipping a frame drops the named function from the top.
    const std::string skipped = TraceFromNamedTestFunction(1, 1);
    EXPECT_EQ(skipped.find("TraceFromNamedTestFunction"), std::string::npos) << skipped;
    EXPECT_EQ(std::count(skipped.begin(), skipped.end(), '\n'), 1);

    // Deeper than the first buffer, then shallower again.
    const std::string deep = TraceFromNamedTestFunction(0, 200);
    EXPECT_GE(std::count(deep.begin(), deep.end(), '\n'), 3);
    const std::string shallow = TraceFromNamedTestFunction(0, 2);
    EXPECT_EQ(std::count(shallow.begin(), shallow.end(), '\n'), 2);
}
