#include <gtest/gtest.h>

#include <string>

#include "Data/Values.h"
#include "MessageOf.h"

namespace {

std::string Normalised(const char* text) { return Data::DateTime::FromIso8601(text).Format(); }

} // namespace

TEST(DateTime, AcceptedIso8601FormsNormaliseToUtc) {
    const struct {
        const char* text;
        const char* expected;
    } cases[] = {
        {"2021-03-04", "2021-03-04T00:00:00.000Z"},
        {"2021-03", "2021-03-01T00:00:00.000Z"},
        {"2021", "2021-01-01T00:00:00.000Z"},
        {"2021-03-04T05:06:07Z", "2021-03-04T05:06:07.000Z"},
        {"2021-03-04T05:06:07", "2021-03-04T05:06:07.000Z"},
        {"2021-03-04t05:06Z", "2021-03-04T05:06:00.000Z"},
        {"2021-03-04 05:06:07z", "2021-03-04T05:06:07.000Z"},
        {"2021-03-04T05:06:07.5Z", "2021-03-04T05:06:07.500Z"},
        {"2021-03-04T05:06:07,123Z", "2021-03-04T05:06:07.123Z"},
        {"2021-03-04T05:06:07.1239999999999Z", "2021-03-04T05:06:07.123Z"},
        {"2021-03-04T05:06:07+02:00", "2021-03-04T03:06:07.000Z"},
        {"2021-03-04T01:00:00+0230", "2021-03-03T22:30:00.000Z"},
        {"2021-12-31T23:30:00-01", "2022-01-01T00:30:00.000Z"},
        {"2024-02-29T12:00:00Z", "2024-02-29T12:00:00.000Z"},
        {"2000-03-01T00:00:00+00:01", "2000-02-29T23:59:00.000Z"},
        {"1969-12-31T23:59:59.999Z", "1969-12-31T23:59:59.999Z"},
    };
    for (const auto& c : cases) EXPECT_EQ(Normalised(c.text), c.expected) << c.text;
}

TEST(DateTime, RejectsMalformedText) {
    const char* bad[] = {
        "", "21-03-04", "2021-13-01", "2021-02-29", "2021-04-31", "2021-03-04T", "2021-03-04T25:00Z",
        "2021-03-04T05:60Z", "2021-03-04T05:06:07.Z", "2021-03-04T05:06:07+2", "2021-03-04T05:06:07+02:0",
        "2021-03-04T05:06:07Zjunk", "2021/03/04", "now"};
    for (const char* text : bad) {
        EXPECT_EQ(TestSupport::MessageOf([&] { Data::DateTime::FromIso8601(text); }),
                  std::string("Invalid ISO 8601 date-time: \"") + text + "\"");
    }
}

TEST(DateTime, NanosecondsAreKeptAndFormattedTruncated) {
    auto dateTime = Data::DateTime::FromIso8601("2020-01-01T00:00:00.999999999Z");
    EXPECT_EQ(dateTime->GetNanoseconds(), 999999999);
    EXPECT_EQ(dateTime.Format(), "2020-01-01T00:00:00.999Z");
}

TEST(DateTime, NowIsACurrentUtcTime) {
    auto now = Data::DateTime::Now();
    EXPECT_GE(now->GetYear(), 2024);
    EXPECT_LT(now->GetNanoseconds(), 1000000000);
    EXPECT_EQ(now.Format().size(), 24u);
}
