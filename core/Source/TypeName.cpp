#include "Core/TypeName.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

namespace Core {

std::string DemangleTypeName(const char* mangled) {
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> text(abi::__cxa_demangle(mangled, nullptr, nullptr, &status),
                                                     &std::free);
    return status == 0 && text ? std::string(text.get()) : std::string(mangled);
}

std::string TypeNameOf(const std::type_info& info, bool isClass, bool isAbstract) {
    std::string name = DemangleTypeName(info.name());
    if (!isClass) return name;
    return (isAbstract ? "struct " : "class ") + name;
}

} // namespace Core
