/* The stand-in browser of bench/click_latency.sh. The first thing it does is
 * read the monotonic clock; then it reports, on the FIFO that
 * CLICK_LATENCY_FIFO names, that time in nanoseconds, the name it was started
 * as and the URL it was given, in one line, and ends. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char** argv) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const char* fifo = getenv("CLICK_LATENCY_FIFO");
  if (!fifo) return 2;
  const char* name = strrchr(argv[0], '/');
  name = name ? name + 1 : argv[0];
  char line[4096];
  int length = snprintf(line, sizeof(line), "%lld %s %s\n",
                        (long long)now.tv_sec * 1000000000LL + now.tv_nsec, name,
                        argc > 1 ? argv[1] : "-");
  if (length < 0 || length >= (int)sizeof(line)) return 3;
  int fd = open(fifo, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return 4;
  /* Shorter than PIPE_BUF: written whole or not at all. */
  ssize_t written = write(fd, line, (size_t)length);
  close(fd);
  return written == length ? 0 : 5;
}
