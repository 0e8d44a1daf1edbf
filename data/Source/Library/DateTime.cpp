#include <fmt/format.h>
#include <time.h>

#include <cctype>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "Core/AbiGuard.h"
#include "Core/ObjectImplBase.h"
#include "Data/Exports.h"

namespace Data::impl {
namespace {

// Days since 1970-01-01 of a proleptic Gregorian date, and back (Howard Hinnant's algorithms).
int64_t DaysFromCivil(int64_t y, int64_t m, int64_t d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

void CivilFromDays(int64_t z, int32_t& year, int32_t& month, int32_t& day) {
    z += 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const int64_t doe = z - era * 146097;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const int64_t mp = (5 * doy + 2) / 153;
    day = static_cast<int32_t>(doy - (153 * mp + 2) / 5 + 1);
    month = static_cast<int32_t>(mp < 10 ? mp + 3 : mp - 9);
    year = static_cast<int32_t>(yoe + era * 400 + (month <= 2));
}

bool IsLeapYear(int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int DaysInMonth(int64_t y, int m) {
    static constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && IsLeapYear(y) ? 29 : days[m - 1];
}

class DateTimeImpl final : public Core::LightObjectImplBase<Interfaces::IDateTime> {
public:
    // From seconds since the epoch in UTC and the nanoseconds within that second.
    DateTimeImpl(int64_t epochSeconds, int32_t nanoseconds) : nanoseconds_(nanoseconds) {
        int64_t days = epochSeconds / 86400;
        int64_t rest = epochSeconds % 86400;
        if (rest < 0) {
            rest += 86400;
            --days;
        }
        CivilFromDays(days, year_, month_, day_);
        hour_ = static_cast<int32_t>(rest / 3600);
        minute_ = static_cast<int32_t>(rest % 3600 / 60);
        second_ = static_cast<int32_t>(rest % 60);
    }

    int32_t GetYear() const noexcept override { return year_; }
    int32_t GetMonth() const noexcept override { return month_; }
    int32_t GetDay() const noexcept override { return day_; }
    int32_t GetHour() const noexcept override { return hour_; }
    int32_t GetMinute() const noexcept override { return minute_; }
    int32_t GetSecond() const noexcept override { return second_; }
    int32_t GetNanoseconds() const noexcept override { return nanoseconds_; }

private:
    int32_t year_ = 1970, month_ = 1, day_ = 1, hour_ = 0, minute_ = 0, second_ = 0, nanoseconds_ = 0;
};

// Reads the ISO 8601 forms found in capabilities documents and time parameters:
//   YYYY, YYYY-MM, YYYY-MM-DD, then optionally T (or t or a blank) hh:mm[:ss[.fraction]]
//   and a zone: Z, +hh, +hh:mm or +hhmm (or -). No zone means UTC.
class Iso8601Reader {
public:
    explicit Iso8601Reader(std::string_view text) : text_(text) {}

    void Read(int64_t& epochSeconds, int32_t& nanoseconds) {
        const int year = Digits(4);
        int month = 1, day = 1, hour = 0, minute = 0, second = 0;
        int64_t offsetSeconds = 0;
        nanoseconds = 0;
        if (Accept('-')) {
            month = Digits(2);
            if (Accept('-')) day = Digits(2);
        }
        if (month < 1 || month > 12 || day < 1 || day > DaysInMonth(year, month)) Fail();
        if (Accept('T') || Accept('t') || Accept(' ')) {
            hour = Digits(2);
            Expect(':');
            minute = Digits(2);
            if (Accept(':')) {
                second = Digits(2);
                if (Accept('.') || Accept(',')) nanoseconds = Fraction();
            }
            if (hour > 23 || minute > 59 || second > 60) Fail();
            offsetSeconds = Zone();
        }
        if (pos_ != text_.size()) Fail();
        epochSeconds = DaysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second - offsetSeconds;
    }

private:
    [[noreturn]] void Fail() const {
        throw std::runtime_error(fmt::format("Invalid ISO 8601 date-time: \"{}\"", text_));
    }

    bool Accept(char c) {
        if (pos_ < text_.size() && text_[pos_] == c) {
            ++pos_;
            return true;
        }
        return false;
    }

    void Expect(char c) {
        if (!Accept(c)) Fail();
    }

    int Digits(int count) {
        int value = 0;
        for (int i = 0; i < count; ++i, ++pos_) {
            if (pos_ >= text_.size() || !std::isdigit(static_cast<unsigned char>(text_[pos_]))) Fail();
            value = value * 10 + (text_[pos_] - '0');
        }
        return value;
    }

    // Fraction of a second in nanoseconds; digits past the ninth are cut off.
    int32_t Fraction() {
        int32_t value = 0;
        int digits = 0;
        while (pos_ < text_.size() && std::isdigit(static_cast<unsigned char>(text_[pos_]))) {
            if (digits < 9) {
                value = value * 10 + (text_[pos_] - '0');
                ++digits;
            }
            ++pos_;
        }
        if (digits == 0) Fail();
        for (; digits < 9; ++digits) value *= 10;
        return value;
    }

    int64_t Zone() {
        if (Accept('Z') || Accept('z')) return 0;
        int sign = 0;
        if (Accept('+'))
            sign = 1;
        else if (Accept('-'))
            sign = -1;
        else
            return 0;
        const int hours = Digits(2);
        int minutes = 0;
        if (Accept(':'))
            minutes = Digits(2);
        else if (pos_ < text_.size())
            minutes = Digits(2);
        if (hours > 23 || minutes > 59) Fail();
        return sign * (hours * 3600 + minutes * 60);
    }

    std::string_view text_;
    size_t pos_ = 0;
};

} // namespace
} // namespace Data::impl

bool Data_CreateCurrentDateTime(Data::Interfaces::IDateTime** ppDateTime, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppDateTime);
            timespec now{};
            clock_gettime(CLOCK_REALTIME, &now);
            *ppDateTime = new Data::impl::DateTimeImpl(now.tv_sec, static_cast<int32_t>(now.tv_nsec));
        },
        ppError);
}

bool Data_CreateDateTimeFromIso8601(const char* text, Data::Interfaces::IDateTime** ppDateTime,
                                    Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(text);
            Core::CheckResultAddress(ppDateTime);
            int64_t seconds = 0;
            int32_t nanoseconds = 0;
            Data::impl::Iso8601Reader(text).Read(seconds, nanoseconds);
            *ppDateTime = new Data::impl::DateTimeImpl(seconds, nanoseconds);
        },
        ppError);
}
