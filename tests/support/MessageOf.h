#pragma once
#include <exception>
#include <string>

namespace TestSupport {

// The text of what `f` throws, or "<no exception>".
template <class F>
std::string MessageOf(F&& f) {
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "<no exception>";
}

} // namespace TestSupport
