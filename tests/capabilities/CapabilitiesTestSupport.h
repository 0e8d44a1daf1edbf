#pragma once
// Helpers for the capabilities tests: failure texts and small edits of template documents.
#include <gtest/gtest.h>

#include <exception>
#include <functional>
#include <string>
#include <string_view>

namespace CapabilitiesTests {

// The text of the exception that `f` throws, or a marker when it throws nothing.
template <class F>
std::string MessageOf(F&& f) {
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "<no exception>";
}

// `text` with every `from` replaced by `to`; fails the test when `from` does not occur, so that a
// table row cannot silently test the unchanged document.
inline std::string Replace(std::string text, std::string_view from, std::string_view to) {
    size_t position = text.find(from);
    EXPECT_NE(position, std::string::npos) << "template lacks: " << from;
    while (position != std::string::npos) {
        text.replace(position, from.size(), to);
        position = text.find(from, position + to.size());
    }
    return text;
}

// One row of a failure table: a document and the message it must fail with.
struct FailureCase {
    const char* name;
    std::string document;
    std::string message;
};

inline std::ostream& operator<<(std::ostream& out, const FailureCase& c) { return out << c.name; }

}  // namespace CapabilitiesTests
