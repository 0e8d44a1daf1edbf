#pragma once
// Helpers for the capabilities tests: failure texts and small edits of template documents.
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "MessageOf.h"

namespace CapabilitiesTests {

using Strings = std::vector<std::string>;

// The text every missing element or attribute fails with.
inline const std::string Missing = "Attribute does not exist";

using TestSupport::MessageOf;

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

// `text` with `from` replaced by `to`, then `from2` by `to2`: a document with two faults.
inline std::string Replace(std::string text, std::string_view from, std::string_view to, std::string_view from2,
                           std::string_view to2) {
    return Replace(Replace(std::move(text), from, to), from2, to2);
}

// One row of a failure table: a document and the message it must fail with.
struct FailureCase {
    const char* name;
    std::string document;
    std::string message;
};

// Reads every document of `cases` with `Reader` and checks the message it fails with.
template <class Reader>
void ExpectFailures(const std::vector<FailureCase>& cases) {
    for (const FailureCase& c : cases) {
        EXPECT_EQ(MessageOf([&] { Reader reader(c.document); }), c.message) << c.name;
    }
}

}  // namespace CapabilitiesTests
