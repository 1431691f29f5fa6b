/* Preloaded to move a real program's wall clock by $CORVANE_FAKE_CLOCK_OFFSET_SECONDS. Other clocks, and the
 * time of day that log lines show, stay real. */
#define _GNU_SOURCE
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

int clock_gettime(clockid_t clock, struct timespec* ts) {
  int result = (int)syscall(SYS_clock_gettime, clock, ts);
  const char* offset = getenv("CORVANE_FAKE_CLOCK_OFFSET_SECONDS");
  if (result == 0 && offset && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
    ts->tv_sec += strtoll(offset, NULL, 10);
  return result;
}
