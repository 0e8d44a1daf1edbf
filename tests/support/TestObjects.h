#pragma once
// Small interfaces and objects the tests use to exercise the object model.
#include <atomic>

#include "Core/ObjectImplBase.h"

namespace Tellar::Interfaces {
struct IMapService : Core::IObject {
    virtual int Id() const = 0;
};
} // namespace Tellar::Interfaces

namespace TestSupport {

struct IOther : Core::IObject {
    virtual int Other() const = 0;
};

// Counts live instances so tests can see when the last reference went.
class Counted : public Core::ObjectImplBase<Tellar::Interfaces::IMapService> {
public:
    explicit Counted(std::atomic<int>* live = nullptr) : live_(live) {
        if (live_) ++*live_;
    }
    ~Counted() override {
        if (live_) --*live_;
    }
    int Id() const override { return 7; }

private:
    std::atomic<int>* live_;
};

} // namespace TestSupport
