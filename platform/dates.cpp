#include "platform/dates.h"

#include <sys/time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace gab {
namespace {

constexpr const char* kDays[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                 "Thursday", "Friday", "Saturday"};
constexpr const char* kMonths[] = {"January",   "February", "March",    "April",
                                   "May",       "June",     "July",     "August",
                                   "September", "October",  "November", "December"};

tm LocalTime(Date date) {
  // Fractional seconds are dropped toward minus infinity, as a clock shows them.
  // Dates from damaged archives can be anything; they are held to years
  // 1-9999 so that the conversion stays defined.
  double unix = std::floor(date.Unix());
  if (std::isnan(unix)) unix = 0;
  unix = std::clamp(unix, -62135596800.0, 253402300799.0);
  time_t t = time_t(unix);
  tm local{};
  localtime_r(&t, &local);
  return local;
}

void Num(std::string& out, int value, int width, char pad = '0') {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%d", value);
  std::string digits = buf;
  while (int(digits.size()) < width) digits.insert(digits.begin(), pad);
  out += digits;
}

void Format(std::string& out, const tm& t, std::string_view f, DayPadding pad) {
  for (size_t i = 0; i < f.size(); ++i) {
    if (f[i] != '%' || i + 1 >= f.size()) {
      out += f[i];
      continue;
    }
    char d = f[++i];
    switch (d) {
      case 'a':
        out.append(kDays[t.tm_wday], 3);
        break;
      case 'A':
        out += kDays[t.tm_wday];
        break;
      case 'b':
        out.append(kMonths[t.tm_mon], 3);
        break;
      case 'B':
        out += kMonths[t.tm_mon];
        break;
      case 'c':
        Format(out, t, "%a %b %d %H:%M:%S %Z %Y", pad);
        break;
      case 'd':
        Num(out, t.tm_mday, 2);
        break;
      case 'e':
        Num(out, t.tm_mday, pad == DayPadding::kBlank ? 2 : 1, ' ');
        break;
      case 'H':
        Num(out, t.tm_hour, 2);
        break;
      case 'I':
        Num(out, t.tm_hour % 12 == 0 ? 12 : t.tm_hour % 12, 2);
        break;
      case 'j':
        Num(out, t.tm_yday + 1, 3);
        break;
      case 'm':
        Num(out, t.tm_mon + 1, 2);
        break;
      case 'M':
        Num(out, t.tm_min, 2);
        break;
      case 'p':
        out += t.tm_hour < 12 ? "AM" : "PM";
        break;
      case 'S':
        Num(out, t.tm_sec, 2);
        break;
      case 'y':
        Num(out, (t.tm_year + 1900) % 100, 2);
        break;
      case 'Y':
        Num(out, t.tm_year + 1900, 4);
        break;
      case 'Z':
        out += t.tm_zone ? t.tm_zone : "";
        break;
      case 'z': {
        long off = t.tm_gmtoff;
        out += off < 0 ? '-' : '+';
        off = std::labs(off);
        Num(out, int(off / 3600), 2);
        Num(out, int((off % 3600) / 60), 2);
        break;
      }
      case '%':
        out += '%';
        break;
      default:
        out += '%';
        out += d;
    }
  }
}

}  // namespace

Date Date::Now() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  return FromUnix(double(tv.tv_sec) + tv.tv_usec / 1e6);
}

std::string FormatDate(Date date, std::string_view format, DayPadding pad) {
  std::string out;
  Format(out, LocalTime(date), format, pad);
  return out;
}

std::string DefaultDescription(Date date) {
  return FormatDate(date, "%Y-%m-%d %H:%M:%S %z");
}

std::optional<Date> ParseMonthYear(std::string_view text) {
  size_t space = text.rfind(' ');
  if (space == std::string_view::npos) return std::nullopt;
  std::string_view month = text.substr(0, space), year = text.substr(space + 1);
  int m = -1;
  for (int k = 0; k < 12; ++k)
    if (month == kMonths[k]) m = k;
  if (m < 0 || year.empty() || year.size() > 6) return std::nullopt;
  int y = 0;
  for (char c : year) {
    if (c < '0' || c > '9') return std::nullopt;
    y = y * 10 + (c - '0');
  }
  tm t{};
  t.tm_year = y - 1900;
  t.tm_mon = m;
  t.tm_mday = 1;
  t.tm_isdst = -1;
  time_t unix = mktime(&t);
  return Date::FromUnix(double(unix));
}

int LocalMonth(Date date) {
  return LocalTime(date).tm_mon + 1;
}

int CalendarDaysBetween(Date from, Date to) {
  // Count days between the two local calendar dates via their civil day numbers.
  auto dayNumber = [](const tm& t) {
    long y = t.tm_year + 1900, m = t.tm_mon + 1, d = t.tm_mday;
    y -= m <= 2;
    long era = (y >= 0 ? y : y - 399) / 400;
    long yoe = y - era * 400;
    long doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe;
  };
  return int(dayNumber(LocalTime(to)) - dayNumber(LocalTime(from)));
}

}  // namespace gab
