/* Preloaded into a real program to move its wall clock: CLOCK_REALTIME reads
 * are shifted by CORVANE_FAKE_CLOCK_OFFSET_SECONDS. Other clocks, and the
 * time of day used for log timestamps, stay real. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

typedef int (*clock_gettime_fn)(clockid_t, struct timespec*);

int clock_gettime(clockid_t clock, struct timespec* ts) {
  static clock_gettime_fn real;
  if (!real) {
    void* symbol = dlsym(RTLD_NEXT, "clock_gettime");
    memcpy(&real, &symbol, sizeof(real));
  }
  int result = real(clock, ts);
  if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
    const char* offset = getenv("CORVANE_FAKE_CLOCK_OFFSET_SECONDS");
    if (offset) ts->tv_sec += strtoll(offset, NULL, 10);
  }
  return result;
}
