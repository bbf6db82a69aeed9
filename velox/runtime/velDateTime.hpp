#pragma once

#include <string>

#include "velox/runtime/velCompiler.hpp"

struct _SYSTEMTIME;

namespace velox {

/// A point in time: days since 1899-12-30 00:00, local time, the fraction being the time of day.
/// Before that date the integer part counts backwards while the fraction still counts forwards from
/// midnight.
using TDateTime = double;

/// Local time now, to the millisecond.
VELOX_API TDateTime Now() noexcept;

/// Between a date-time and its parts, to the millisecond. SystemTimeToDateTime raises EConvertError
/// for parts that are no date; DateTimeToSystemTime for a time outside the years 1 to 9999.
VELOX_API TDateTime SystemTimeToDateTime(const _SYSTEMTIME& Time);
VELOX_API _SYSTEMTIME DateTimeToSystemTime(TDateTime Time);

/// "2024-03-05 14:07:09.042": four-digit year, month, day, 24-hour time and milliseconds. Between
/// hours, minutes and seconds stands the time separator that the user's regional settings had when
/// this process first needed it.
VELOX_API std::string FormatTimeStamp(const _SYSTEMTIME& Time);
VELOX_API std::string FormatTimeStamp(TDateTime Time);

}  // namespace velox
