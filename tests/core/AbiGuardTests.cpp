#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <stdexcept>

#include "Core/AbiGuard.h"
#include "Core/ErrorCodeImpl.h"
#include "MessageOf.h"
#include "TestObjects.h"

using Core::IErrorCode;
using Core::Ptr;
using Tellar::Interfaces::IMapService;

namespace {

// A boundary function of the usual shape: inputs, the result address, then the work.
bool MakeService(const char* name, IMapService* borrowed, IMapService** ppResult, IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(name);
            Core::ThrowIfNull(borrowed, "Service is required.");
            Core::CheckResultAddress(ppResult);
            *ppResult = Core::MakeObject<TestSupport::Counted>().Detach();
        },
        ppError);
}

struct NotStd {};

} // namespace

TEST(AbiGuard, TurnsEveryKindOfExceptionIntoAnErrorObject) {
    const struct {
        std::function<void()> thrower;
        const char* message;
        uint32_t code;
    } cases[] = {
        {[] { throw std::runtime_error("broken"); }, "broken", 2},
        {[] { throw std::exception(); }, "Unknown exception", 2},
        {[] { throw NotStd{}; }, "Uncaught exception", 1},
        {[] { throw 42; }, "Uncaught exception", 1},
    };
    for (const auto& c : cases) {
        Ptr<IErrorCode> error;
        EXPECT_FALSE(Core::AbiGuard(c.thrower, error.ReceiveAddress()));
        ASSERT_FALSE(error.IsNull()) << c.message;
        EXPECT_STREQ(error->GetMessage(), c.message);
        EXPECT_EQ(error->GetMessageLength(), std::strlen(c.message));
        EXPECT_EQ(error->GetCode(), c.code) << c.message;
    }
    EXPECT_TRUE(Core::AbiGuard([] {}, nullptr));
}

TEST(AbiGuard, NullOrFilledErrorAddressIsLeftAlone) {
    EXPECT_FALSE(Core::AbiGuard([] { throw std::runtime_error("dropped"); }, nullptr));

    auto first = Core::MakeErrorCode(0, "first");
    IErrorCode* slot = first.Raw();
    EXPECT_FALSE(Core::AbiGuard([] { throw std::runtime_error("second"); }, &slot));
    EXPECT_EQ(slot, first.Raw());
    first->AddReference();
    EXPECT_EQ(first->Release(), 1u) << "the earlier error is neither released nor replaced";
}

TEST(ArgumentGuards, MessagesAndTheirOrder) {
    auto service = Core::MakeObject<TestSupport::Counted>();
    struct Case {
        const char* name;
        IMapService* input;
        bool nullAddress;
        bool filled;
        const char* expected;
    } cases[] = {
        {nullptr, nullptr, true, false, "Pointer of char must not be null!"},
        {"n", nullptr, true, false,
         "Pointer of struct Tellar::Interfaces::IMapService must not be null! Service is required."},
        {"n", service.Raw(), true, false,
         "Pointer to a pointer of struct Tellar::Interfaces::IMapService must not be null! Address of return must "
         "be specified!"},
        {"n", service.Raw(), false, true,
         "Pointer of struct Tellar::Interfaces::IMapService must be null in order to avoid memory leaks!"},
    };
    for (const Case& c : cases) {
        IMapService* stale = c.filled ? service.Raw() : nullptr;
        Ptr<IErrorCode> error;
        EXPECT_FALSE(MakeService(c.name, c.input, c.nullAddress ? nullptr : &stale, error.ReceiveAddress()));
        ASSERT_FALSE(error.IsNull());
        EXPECT_STREQ(error->GetMessage(), c.expected);
        EXPECT_EQ(error->GetCode(), 2u);
        if (c.filled) {
            EXPECT_EQ(stale, service.Raw()) << "a stale result is left untouched";
        }
    }
    service->AddReference();
    EXPECT_EQ(service->Release(), 1u) << "no guard took or dropped a reference";
}

TEST(ArgumentGuards, SuccessHandsOneReferenceToTheCaller) {
    auto input = Core::MakeObject<TestSupport::Counted>();
    Ptr<IMapService> result;
    Ptr<IErrorCode> error;
    ASSERT_TRUE(MakeService("n", input.Raw(), result.ReceiveAddress(), error.ReceiveAddress()));
    EXPECT_TRUE(error.IsNull());
    result->AddReference();
    EXPECT_EQ(result->Release(), 1u);
}

TEST(ThrowIfError, RaisesTheMessageAndErrorViewBorrowsIt) {
    Ptr<IErrorCode> none;
    EXPECT_NO_THROW(Core::ThrowIfError(none));
    EXPECT_EQ(Core::ErrorView(none).View(), "");

    auto error = Core::MakeErrorCode(0, std::string("with\0zero", 9));
    EXPECT_EQ(Core::ErrorView(error).length, 9u);
    EXPECT_EQ(TestSupport::MessageOf([&] { Core::ThrowIfError(error); }), "with");
}
