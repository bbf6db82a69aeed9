#include "velox/runtime/velDateTime.hpp"

#include <chrono>
#include <cmath>

#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velMessages.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox {
namespace {

constexpr double MillisecondsPerDay = 86'400'000.0;
constexpr std::chrono::sys_days Epoch = std::chrono::year{1899} / 12 / 30;
constexpr double FirstDay = -693'593.0;  // 0001-01-01
constexpr double EndDay = 2'958'466.0;   // 10000-01-01

// The time separator as it was when it was first needed: asking the system each time would cost
// more than the rest.
struct TSeparator {
  TSeparator() noexcept { ::GetLocaleInfoA(LOCALE_USER_DEFAULT, LOCALE_STIME, Text, sizeof Text); }
  char Text[8] = ":";
};

}  // namespace

TDateTime Now() noexcept {
  SYSTEMTIME time;
  ::GetLocalTime(&time);
  return SystemTimeToDateTime(time);
}

TDateTime SystemTimeToDateTime(const SYSTEMTIME& Time) {
  const std::chrono::year_month_day date{
      std::chrono::year{Time.wYear}, std::chrono::month{Time.wMonth}, std::chrono::day{Time.wDay}};
  const bool valid = date.ok() && Time.wYear >= 1 && Time.wYear <= 9999 && Time.wHour < 24 &&
                     Time.wMinute < 60 && Time.wSecond < 60 && Time.wMilliseconds < 1000;
  if (!valid) throw EConvertError(messages::seInvalidDateTime);
  const double days = static_cast<double>((std::chrono::sys_days{date} - Epoch).count());
  const double milliseconds =
      ((Time.wHour * 60.0 + Time.wMinute) * 60.0 + Time.wSecond) * 1000.0 + Time.wMilliseconds;
  const double fraction = milliseconds / MillisecondsPerDay;
  return days >= 0 ? days + fraction : days - fraction;
}

SYSTEMTIME DateTimeToSystemTime(TDateTime Time) {
  double days = std::trunc(Time);
  double milliseconds = std::round(std::fabs(Time - days) * MillisecondsPerDay);
  if (milliseconds >= MillisecondsPerDay) {  // rounded up to the next midnight
    milliseconds = 0;
    days += 1;
  }
  if (!(days >= FirstDay && days < EndDay)) throw EConvertError(messages::seInvalidDateTime);
  const std::chrono::sys_days date = Epoch + std::chrono::days{static_cast<int>(days)};
  const std::chrono::year_month_day parts{date};
  const auto rest = static_cast<uint32_t>(milliseconds);
  SYSTEMTIME result{};
  result.wYear = static_cast<WORD>(int{parts.year()});
  result.wMonth = static_cast<WORD>(unsigned{parts.month()});
  result.wDay = static_cast<WORD>(unsigned{parts.day()});
  result.wDayOfWeek = static_cast<WORD>(std::chrono::weekday{date}.c_encoding());
  result.wHour = static_cast<WORD>(rest / 3'600'000);
  result.wMinute = static_cast<WORD>(rest / 60'000 % 60);
  result.wSecond = static_cast<WORD>(rest / 1000 % 60);
  result.wMilliseconds = static_cast<WORD>(rest % 1000);
  return result;
}

std::string FormatTimeStamp(const SYSTEMTIME& Time) {
  static const TSeparator separator;
  return Format("%04u-%02u-%02u %02u%s%02u%s%02u.%03u", Time.wYear, Time.wMonth, Time.wDay,
                Time.wHour, separator.Text, Time.wMinute, separator.Text, Time.wSecond,
                Time.wMilliseconds);
}

std::string FormatTimeStamp(TDateTime Time) { return FormatTimeStamp(DateTimeToSystemTime(Time)); }

}  // namespace velox
