#include <dlfcn.h>
#include <gtest/gtest.h>

#include "Platform/Log.h"

// Run with the stand-in companion library on the library path: the process logger is the one
// that library hands out, not a private one.
TEST(GetAppLogger, UsesTheCompanionLibraryLogger) {
    auto logger = Platform::GetAppLogger();
    ASSERT_FALSE(logger.IsNull());
    void* companion = dlopen("libTellarPlatform.so", RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(companion, nullptr) << "GetAppLogger loaded the companion";
    using Export = Platform::Interfaces::IAppLogger* (*)();
    auto instance = reinterpret_cast<Export>(dlsym(companion, "Platform_GetAppLoggerInstance"));
    ASSERT_NE(instance, nullptr);
    EXPECT_EQ(logger.Raw(), instance());
    EXPECT_EQ(logger->GetLevel(), 0u) << "the companion's own settings";
    dlclose(companion);
}
