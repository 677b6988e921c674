#include "vel/vel_date.h"

#include <chrono>
#include <ctime>
#include <limits>
#include <string_view>

#include <fmt/format.h>

#include "vel/vel_err.h"

namespace vel_date {
namespace {

using std::chrono::days;
using std::chrono::sys_days;
using std::chrono::year_month_day;

constexpr int64_t kDaySeconds = 24 * 60 * 60;
constexpr int64_t kLowest = std::numeric_limits<int64_t>::min();  // the empty date-time
constexpr int64_t kFirstDay = sys_days(std::chrono::year(0) / 1 / 1).time_since_epoch().count();
constexpr int64_t kLastDay = sys_days(std::chrono::year(9999) / 12 / 31).time_since_epoch().count();

/// Takes a number of `least` to `most` digits off `s`; -1 when it does not begin with one.
int TakeNumber(std::string_view& s, std::size_t least, std::size_t most) {
    int n = 0;
    std::size_t i = 0;
    for (; i < most && i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) n = n * 10 + (s[i] - '0');
    s.remove_prefix(i);
    return i < least ? -1 : n;
}

bool TakeByte(std::string_view& s, char c) {
    if (s.empty() || s[0] != c) return false;
    s.remove_prefix(1);
    return true;
}

/// Takes "Y-M-D" off `s` and gives its day.
bool TakeDay(std::string_view& s, int64_t& day) {
    const int y = TakeNumber(s, 4, 4);
    if (y < 0 || !TakeByte(s, '-')) return false;
    const int m = TakeNumber(s, 1, 2);
    if (m < 0 || !TakeByte(s, '-')) return false;
    const int d = TakeNumber(s, 1, 2);
    if (d < 0) return false;
    const year_month_day ymd{std::chrono::year(y), std::chrono::month(static_cast<unsigned>(m)),
                             std::chrono::day(static_cast<unsigned>(d))};
    if (!ymd.ok()) return false;
    day = sys_days(ymd).time_since_epoch().count();
    return true;
}

/// Takes "H:M:S" off `s` and gives its second of the day.
bool TakeTime(std::string_view& s, int64_t& second) {
    const int h = TakeNumber(s, 1, 2);
    if (h < 0 || h > 23 || !TakeByte(s, ':')) return false;
    const int m = TakeNumber(s, 1, 2);
    if (m < 0 || m > 59 || !TakeByte(s, ':')) return false;
    const int sec = TakeNumber(s, 1, 2);
    if (sec < 0 || sec > 59) return false;
    second = (h * 60 + m) * 60 + sec;
    return true;
}

/// What the wall clock shows, counted as if it were UTC.
int64_t LocalNow() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    return static_cast<int64_t>(now) + local.tm_gmtoff;
}

std::string DayText(int64_t day) {
    const year_month_day ymd{sys_days(days(day))};
    return fmt::format("{:04}-{:02}-{:02}", int(ymd.year()), unsigned(ymd.month()),
                       unsigned(ymd.day()));
}

int64_t DayOf(int64_t seconds) {
    return std::chrono::floor<days>(std::chrono::seconds(seconds)).count();
}

}  // namespace

Date::Date() : days_(DayOf(LocalNow())) {}

Date::Date(const std::string& text) : days_(0) {
    std::string_view rest = text;
    if (!TakeDay(rest, days_) || !rest.empty()) throw vel_err::Error("date", "invalid", text);
}

int Date::weekday() const {
    return static_cast<int>(std::chrono::weekday(sys_days(days(days_))).c_encoding());
}

Date& Date::AddDays(int days) {
    const int64_t moved = days_ + days;
    if (moved < kFirstDay || moved > kLastDay) {
        throw vel_err::Error("date", "range", AsDate() + fmt::format(" {:+} days", days));
    }
    days_ = moved;
    return *this;
}

std::string Date::AsDate() const { return DayText(days_); }

std::string AccurateDateTime::AsDateTime() const {
    if (seconds_ == kLowest) return "";
    const int64_t day = DayOf(seconds_);
    const int64_t second = seconds_ - day * kDaySeconds;
    return DayText(day) +
           fmt::format(" {:02}:{:02}:{:02}", second / 3600, second / 60 % 60, second % 60);
}

DateTime::DateTime() { seconds_ = LocalNow(); }

DateTime::DateTime(const std::string& text) {
    seconds_ = kLowest;
    if (text.empty()) return;
    std::string_view rest = text;
    int64_t day = 0, second = 0;
    bool good = TakeDay(rest, day);
    if (good && !rest.empty()) good = TakeByte(rest, ' ') && TakeTime(rest, second) && rest.empty();
    if (!good) throw vel_err::Error("date", "invalid", text);
    seconds_ = day * kDaySeconds + second;
}

}  // namespace vel_date
