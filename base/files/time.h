// Wall-clock time and spans as signed 64-bit microsecond counts that saturate
// at both ends instead of wrapping.
#ifndef BASE_FILES_TIME_H_
#define BASE_FILES_TIME_H_

#include <cstdint>
#include <limits>

namespace base {

class TimeSpan {
 public:
  constexpr TimeSpan() = default;
  static constexpr TimeSpan FromMicroseconds(int64_t us) { return TimeSpan(us); }
  static constexpr TimeSpan Max() { return TimeSpan(std::numeric_limits<int64_t>::max()); }
  static constexpr TimeSpan Min() { return TimeSpan(std::numeric_limits<int64_t>::min()); }
  constexpr int64_t InMicroseconds() const { return us_; }
  constexpr bool operator==(const TimeSpan&) const = default;

 private:
  constexpr explicit TimeSpan(int64_t us) : us_(us) {}
  int64_t us_ = 0;
};

// Microseconds since 1601-01-01 00:00:00 UTC. 0 is the null time; the
// greatest and least values stand for infinitely late and early.
class TimePoint {
 public:
  // Microseconds from 1601-01-01 to 1970-01-01.
  static constexpr int64_t kUnixEpochOffset = INT64_C(11644473600000000);

  constexpr TimePoint() = default;
  static constexpr TimePoint FromInternalValue(int64_t us) { return TimePoint(us); }
  static constexpr TimePoint Max() { return TimePoint(std::numeric_limits<int64_t>::max()); }
  static constexpr TimePoint Min() { return TimePoint(std::numeric_limits<int64_t>::min()); }
  // From a POSIX seconds-and-nanoseconds pair, saturating.
  static TimePoint FromPosix(int64_t seconds, int64_t nanoseconds);
  // From seconds since 2001-01-01 as a double (the macOS absolute time, its
  // platform clock).
  static TimePoint FromAbsoluteTime(double seconds_since_2001);

  constexpr int64_t ToInternalValue() const { return us_; }
  constexpr bool is_null() const { return us_ == 0; }
  constexpr bool operator==(const TimePoint&) const = default;

  // Past the ends of the 64-bit range the span is the greatest value for a
  // positive and the least for a negative true difference.
  friend TimeSpan operator-(TimePoint a, TimePoint b);

 private:
  constexpr explicit TimePoint(int64_t us) : us_(us) {}
  int64_t us_ = 0;
};

// span / one hour, truncated toward zero, clamped to the signed 32-bit range.
int32_t InWholeHours(TimeSpan span);

// The wall clock, read through the clock hook.
TimePoint CurrentTime();

// The clock hook: a process-wide function pointer. nullptr restores the
// platform clock. Read without a lock: replace it only before other threads
// read the time.
using ClockFunction = TimePoint (*)();
void SetClockHook(ClockFunction clock);
TimePoint PlatformCurrentTime();

}  // namespace base

#endif  // BASE_FILES_TIME_H_
