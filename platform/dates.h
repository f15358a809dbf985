#pragma once
#include <compare>
#include <optional>
#include <string>
#include <string_view>

namespace gab {

// NSDate's value: seconds since 2001-01-01 00:00:00 UTC.
struct Date {
  double time = 0;  // seconds since the reference date

  static constexpr double kUnixOffset = 978307200.0;  // 1970 -> 2001
  static Date Now();
  static Date FromUnix(double unixSeconds) { return Date{unixSeconds - kUnixOffset}; }
  double Unix() const { return time + kUnixOffset; }
  auto operator<=>(const Date&) const = default;
};

enum class DayPadding {
  kNone,   // %e as the calendar formats print it: "1"
  kBlank,  // the statistics page: " 1"
};

// Formats a date in the local time zone with calendar-format directives:
// %a %A %b %B %c %d %e %H %I %j %m %M %p %S %y %Y %Z %z %%.  %e is the day of
// the month without padding (or blank-padded, see DayPadding), %I is 01-12,
// %p is AM or PM, %c is "%a %b %d %H:%M:%S %Z %Y".  Unknown directives are
// copied as they stand.
std::string FormatDate(Date date, std::string_view format, DayPadding pad = DayPadding::kNone);

// A date's default description: "2005-03-08 15:07:42 -0500" (local zone).
std::string DefaultDescription(Date date);

// Parses "%B %Y" ("March 2005") as the first of that month, 00:00 local time.
std::optional<Date> ParseMonthYear(std::string_view text);

// The local calendar month (1-12) of a date.
int LocalMonth(Date date);

// Whole local calendar days from one date to another (negative when `to` is
// earlier); DST-safe.
int CalendarDaysBetween(Date from, Date to);

}  // namespace gab
