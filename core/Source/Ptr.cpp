#include "Core/Ptr.h"

#include "Core/StringFormat.h"

#if defined(__SANITIZE_ADDRESS__)
#define TELLAR_HAS_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TELLAR_HAS_ASAN 1
#endif
#endif

#ifdef TELLAR_HAS_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace Core::detail {

void ThrowNullPointer(const std::string& typeName) {
    throw std::runtime_error("Null pointer exception! Interface is not accessible: " + typeName);
}

void ThrowNotAccessible(const std::string& typeName) {
    throw std::runtime_error("Interface is not accessible: " + typeName);
}

void ThrowInvalidAddress(const void* address) {
    throw std::runtime_error(StringFormat(
        "Memory address [%p] is invalid and was probably already reclaimed by the OS. This means that object "
        "that was held by current Ptr<> was already released somewhere else. If WeakPtr is used then this can "
        "happen if object lifecycle is not maintained properly. This can also happen on AddReference and Release "
        "methods misuse. Other possible causes can be heap corruption or miscompiled binaries.",
        address));
}

void ThrowCannotCast(const std::string& from, const char* label, const std::string& to) {
    throw std::runtime_error("Cannot cast to desired interface: Interface: " + from + label + to);
}

void ThrowMustBeNullForReceive() {
    throw std::runtime_error(
        "Must be nullptr to prevent memory leaks. Maybe default constructor initialized the object?");
}

bool AddressIsReclaimed(const void* address) noexcept {
#ifdef TELLAR_HAS_ASAN
    // Freed blocks sit poisoned in the sanitizer's quarantine: asking costs no read of them.
    return __asan_address_is_poisoned(address) != 0;
#else
    (void)address;
    return false;
#endif
}

} // namespace Core::detail
