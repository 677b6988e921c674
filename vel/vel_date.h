/// Calendar days and local date-times.
#pragma once

#include <compare>
#include <cstdint>
#include <string>

namespace vel_date {

/// A day of the calendar.
class Date {
public:
    Date();  ///< today, local time
    /// "Y-M-D", four-digit year, one or two digits for month and day, a day that exists.
    /// Throws vel_err::Error("date", "invalid", text).
    explicit Date(const std::string& text);

    int weekday() const;  ///< 0 is Sunday
    /// Throws vel_err::Error("date", "range", ...) outside the years 0 to 9999; the day stays then.
    Date& AddDays(int days);
    std::string AsDate() const;  ///< "YYYY-MM-DD"
    auto operator<=>(const Date&) const = default;

private:
    int64_t days_;  // since 1970-01-01
};

class AccurateDateTime {
public:
    std::string AsDateTime() const;  ///< "YYYY-MM-DD HH:MM:SS" as it was given, or local time
    auto operator<=>(const AccurateDateTime&) const = default;

protected:
    int64_t seconds_ = 0;  // of the wall clock: local time counted as if it were UTC
};

/// A date-time with a resolution of one second.
class DateTime : public AccurateDateTime {
public:
    DateTime();  ///< now
    /// "" is earlier than every other; a bare date means 00:00:00; else a date, a space and
    /// "H:M:S". Throws vel_err::Error("date", "invalid", text).
    explicit DateTime(const std::string& text);
    auto operator<=>(const DateTime&) const = default;
};

}  // namespace vel_date
