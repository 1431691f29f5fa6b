#include "base/files/time.h"

#include <time.h>

#if defined(__APPLE__)
#include <CoreFoundation/CoreFoundation.h>
#endif

#include <cmath>

namespace base {

namespace {

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMicrosecondsPerHour = INT64_C(3600000000);
constexpr double kAbsoluteTimeIntervalSince1970 = 978307200.0;

int64_t SaturatedAdd(int64_t a, int64_t b) {
  int64_t sum;
  if (__builtin_add_overflow(a, b, &sum)) return b > 0 ? kMax : kMin;
  return sum;
}

int64_t SaturatedSub(int64_t a, int64_t b) {
  int64_t difference;
  if (__builtin_sub_overflow(a, b, &difference)) return b < 0 ? kMax : kMin;
  return difference;
}

int64_t SaturatedMul(int64_t a, int64_t b) {
  int64_t product;
  if (__builtin_mul_overflow(a, b, &product)) return (a < 0) != (b < 0) ? kMin : kMax;
  return product;
}

bool IsInfinite(int64_t us) { return us == kMax || us == kMin; }

ClockFunction g_clock = nullptr;

}  // namespace

TimePoint TimePoint::FromPosix(int64_t seconds, int64_t nanoseconds) {
  if (seconds == kMax) return Max();
  int64_t us = 0;
  if (seconds != 0) {
    us = SaturatedMul(seconds, 1000000);
    if (!IsInfinite(us)) us = SaturatedAdd(us, kUnixEpochOffset);
  }
  return TimePoint(SaturatedAdd(us, nanoseconds / 1000));
}

TimePoint TimePoint::FromAbsoluteTime(double seconds_since_2001) {
  if (seconds_since_2001 == 0) return TimePoint();
  if (std::isinf(seconds_since_2001) && seconds_since_2001 > 0) return Max();
  double us = (seconds_since_2001 + kAbsoluteTimeIntervalSince1970) * 1000000.0;
  int64_t value;
  if (std::isnan(us)) {
    value = 0;
  } else if (us >= 9223372036854775807.0) {
    value = kMax;
  } else if (us <= -9223372036854775808.0) {
    value = kMin;
  } else {
    value = static_cast<int64_t>(us);
  }
  if (!IsInfinite(value)) value = SaturatedAdd(value, kUnixEpochOffset);
  return TimePoint(value);
}

TimeSpan operator-(TimePoint a, TimePoint b) {
  return TimeSpan::FromMicroseconds(SaturatedSub(a.us_, b.us_));
}

int32_t InWholeHours(TimeSpan span) {
  int64_t hours = span.InMicroseconds() / kMicrosecondsPerHour;
  if (hours > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
  if (hours < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(hours);
}

#if defined(__APPLE__)
TimePoint PlatformCurrentTime() { return TimePoint::FromAbsoluteTime(CFAbsoluteTimeGetCurrent()); }
#else
TimePoint PlatformCurrentTime() {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return TimePoint::FromPosix(now.tv_sec, now.tv_nsec);
}
#endif

TimePoint CurrentTime() { return g_clock ? g_clock() : PlatformCurrentTime(); }

void SetClockHook(ClockFunction clock) { g_clock = clock; }

}  // namespace base
