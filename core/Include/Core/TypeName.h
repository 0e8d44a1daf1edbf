#pragma once
#include <string>
#include <type_traits>
#include <typeinfo>

namespace Core {

// Readable name of a type as the run-time type system reports it: "struct Ns::IName" for an
// interface (an abstract class), "class Ns::Impl" for a concrete class, "char" for char.
std::string DemangleTypeName(const char* mangled);
std::string TypeNameOf(const std::type_info& info, bool isClass, bool isAbstract);

template <class T>
std::string TypeName() {
    using U = std::remove_cv_t<T>;
    return TypeNameOf(typeid(U), std::is_class_v<U>, std::is_abstract_v<U>);
}

// Name of the dynamic type of a live object; concrete types read "class ...".
template <class T>
std::string RuntimeTypeName(const T& object) {
    return TypeNameOf(typeid(object), true, false);
}

} // namespace Core
