#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "Core/ErrorCodeImpl.h"
#include "Core/Ptr.h"
#include "MessageOf.h"
#include "TestObjects.h"

using TestSupport::MessageOf;

using Core::Ptr;
using Tellar::Interfaces::IMapService;
using TestSupport::Counted;
using TestSupport::IOther;

TEST(Ptr, CountsReferencesAndFreesWithTheLastRelease) {
    std::atomic<int> live{0};
    {
        auto first = Core::MakeObject<Counted>(&live);
        EXPECT_EQ(live, 1);
        Ptr<Counted> copy = first;
        Ptr<IMapService> asInterface = copy;
        first.Reset();
        EXPECT_EQ(live, 1);
        EXPECT_EQ(asInterface->Id(), 7);
        // Release reports what is left: copy and asInterface.
        asInterface->AddReference();
        EXPECT_EQ(asInterface->Release(), 2u);
    }
    EXPECT_EQ(live, 0);
}

TEST(Ptr, NullAccessNamesTheInterface) {
    Ptr<IMapService> empty;
    const std::string nullText =
        "Null pointer exception! Interface is not accessible: struct Tellar::Interfaces::IMapService";
    EXPECT_EQ(MessageOf([&] { empty.Get(); }), nullText);
    EXPECT_EQ(MessageOf([&] { (void)empty->Id(); }), nullText);
    // An empty source of As and Cast fails with the null text, never the cast text.
    EXPECT_EQ(MessageOf([&] { empty.As<IOther>(); }), nullText);
    EXPECT_EQ(MessageOf([&] { empty.Cast<IOther>(); }), nullText);
    Core::CheckedPtr<IMapService> field;
    EXPECT_EQ(MessageOf([&] { (void)field->Id(); }),
              "Interface is not accessible: struct Tellar::Interfaces::IMapService");
}

TEST(Ptr, AsAndCastReportTheirOwnTexts) {
    Ptr<IMapService> object = Core::MakeObject<Counted>();
    EXPECT_EQ(MessageOf([&] { object.As<IOther>(); }),
              "Cannot cast to desired interface: Interface: struct Tellar::Interfaces::IMapService Implementation: "
              "struct TestSupport::IOther");
    EXPECT_EQ(MessageOf([&] { object.Cast<IOther>(); }),
              "Cannot cast to desired interface: Interface: struct Tellar::Interfaces::IMapService Desired "
              "Interface: struct TestSupport::IOther");

    Ptr<Counted> concrete = object.As<Counted>();
    EXPECT_EQ(concrete.Raw(), object.Raw());
    object->AddReference();
    EXPECT_EQ(object->Release(), 2u) << "As<> holds a reference of its own";
    EXPECT_EQ(object.Cast<Counted>(), concrete.Raw());
}

TEST(Ptr, ReceiveAddressRequiresAnEmptyPtrAndAdoptsTheReference) {
    std::atomic<int> live{0};
    Ptr<IMapService> target;
    *target.ReceiveAddress() = new Counted(&live);
    EXPECT_EQ(target->Id(), 7);
    EXPECT_EQ(MessageOf([&] { target.ReceiveAddress(); }),
              "Must be nullptr to prevent memory leaks. Maybe default constructor initialized the object?");

    IMapService* raw = target.Detach();
    EXPECT_TRUE(target.IsNull());
    EXPECT_EQ(live, 1);
    EXPECT_EQ(raw->Release(), 0u);
    EXPECT_EQ(live, 0);
}

TEST(Ptr, LastReleaseOnAnotherThreadDestroysTheObjectThere) {
    std::atomic<int> live{0};
    std::thread::id destroyedOn;
    struct Probe : Counted {
        Probe(std::atomic<int>* live, std::thread::id* where) : Counted(live), where_(where) {}
        ~Probe() override { *where_ = std::this_thread::get_id(); }
        std::thread::id* where_;
    };
    Ptr<IMapService> probe = Core::MakeObject<Probe>(&live, &destroyedOn);
    std::thread other([moved = std::move(probe)]() mutable { moved.Reset(); });
    const std::thread::id otherId = other.get_id();
    other.join();
    EXPECT_EQ(destroyedOn, otherId);
    EXPECT_EQ(live, 0);
}

TEST(Ptr, ConcurrentCopiesKeepTheCountExact) {
    std::atomic<int> live{0};
    auto shared = Core::MakeObject<Counted>(&live);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([shared] {
            for (int i = 0; i < 20000; ++i) {
                Ptr<Counted> copy = shared;
                Ptr<IMapService> other = copy;
            }
        });
    for (auto& thread : threads) thread.join();
    shared->AddReference();
    EXPECT_EQ(shared->Release(), 1u);
    shared.Reset();
    EXPECT_EQ(live, 0);
}

TEST(ObjectLock, ErrorObjectNeverLocksAndImplBaseLocks) {
    Core::impl::ErrorCodeImpl* error = new Core::impl::ErrorCodeImpl(2, "x");
    EXPECT_FALSE(error->TryLock());
    error->Lock();
    EXPECT_FALSE(error->TryLock());
    error->Unlock();
    error->Release();

    auto object = Core::MakeObject<Counted>();
    EXPECT_TRUE(object->TryLock());
    EXPECT_FALSE(object->TryLock()) << "the lock is not recursive";
    object->Unlock();
}

#if defined(__SANITIZE_ADDRESS__)
TEST(Ptr, IsNullOnAReleasedObjectReportsTheReclaimedAddress) {
    IMapService* raw = new Counted();
    Ptr<IMapService> dangling = Ptr<IMapService>::Attach(raw);
    raw->AddReference();
    raw->Release();
    raw->Release(); // freed while `dangling` still points at it
    const std::string text = MessageOf([&] { (void)dangling.IsNull(); });
    EXPECT_EQ(text.rfind("Memory address [", 0), 0u) << text;
    EXPECT_NE(text.find("was already released somewhere else."), std::string::npos);
    (void)dangling.Detach(); // nothing left to release
}
#endif
