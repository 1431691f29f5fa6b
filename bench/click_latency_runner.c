/* One timed click for bench/click_latency.sh:
 *
 *   click_latency_runner FIFO NAME URL -- COMMAND [ARGUMENT...]
 *
 * reads the monotonic clock in a child just before it executes COMMAND, then
 * waits for the stand-in browser (click_latency_browser) to report on FIFO
 * when it started running. It checks that the browser started as NAME was
 * given URL, prints the time between the two readings in microseconds, ends
 * COMMAND (a dispatcher would otherwise linger for its two-second shutdown)
 * and waits until every process it started is gone. On failure it prints
 * "FAIL <reason>" and exits 1. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { kStampTimeoutMs = 10000, kReapTimeoutMs = 5000 };

static long long Monotonic(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (long long)now.tv_sec * 1000000000LL + now.tv_nsec;
}

static void SleepMilliseconds(int ms) {
  struct timespec pause = {0, ms * 1000000L};
  nanosleep(&pause, NULL);
}

/* Reaps the command and everything it left behind (this process is their
 * subreaper); what is still there after the timeout is killed. */
static int ReapAll(pid_t group) {
  long long deadline = Monotonic() + kReapTimeoutMs * 1000000LL;
  int killed = 0;
  for (;;) {
    pid_t pid = waitpid(-1, NULL, WNOHANG);
    if (pid > 0) continue;
    if (pid < 0 && errno == ECHILD) return killed ? -1 : 0;
    if (!killed && Monotonic() > deadline) {
      killpg(group, SIGKILL);
      killed = 1;
    }
    SleepMilliseconds(1);
  }
}

static int Fail(const char* reason, pid_t group) {
  printf("FAIL %s\n", reason);
  fflush(stdout);
  if (group > 0) {
    killpg(group, SIGKILL);
    ReapAll(group);
  }
  return 1;
}

int main(int argc, char** argv) {
  if (argc < 6 || strcmp(argv[4], "--") != 0) {
    fprintf(stderr, "usage: %s FIFO NAME URL -- COMMAND [ARGUMENT...]\n", argv[0]);
    return 2;
  }
  const char* fifo_path = argv[1];
  const char* want_name = argv[2];
  const char* want_url = argv[3];
  char** command = argv + 5;

  /* Read and write, so that the FIFO never reports an end while no browser
   * has it open; stale lines of an earlier run are dropped. */
  int fifo = open(fifo_path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fifo < 0) return Fail("cannot open the FIFO", 0);
  char line[8192];
  while (read(fifo, line, sizeof(line)) > 0) {
  }

  long long* start = mmap(NULL, sizeof(long long), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (start == MAP_FAILED) return Fail("mmap", 0);
  *start = 0;
  prctl(PR_SET_CHILD_SUBREAPER, 1);

  pid_t child = fork();
  if (child < 0) return Fail("fork", 0);
  if (child == 0) {
    setpgid(0, 0);
    int null = open("/dev/null", O_RDWR);
    dup2(null, STDIN_FILENO);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    if (null > STDERR_FILENO) close(null);
    *start = Monotonic();
    execvp(command[0], command);
    _exit(127);
  }
  setpgid(child, child);

  struct pollfd wait_for = {fifo, POLLIN, 0};
  int ready = poll(&wait_for, 1, kStampTimeoutMs);
  if (ready <= 0) return Fail("no browser started", child);
  ssize_t got = read(fifo, line, sizeof(line) - 1);
  if (got <= 0) return Fail("empty report", child);
  line[got] = '\0';
  kill(child, SIGTERM);
  int leftovers = ReapAll(child);

  char* end = NULL;
  long long started = strtoll(line, &end, 10);
  char* name = end + 1;
  char* url = strchr(name, ' ');
  char* newline = strchr(line, '\n');
  if (!url || !newline || newline[1] != '\0') return Fail("garbled report", 0);
  *url++ = '\0';
  *newline = '\0';
  if (strcmp(name, want_name) != 0) return Fail("another browser started", 0);
  if (strcmp(url, want_url) != 0) return Fail("the browser got another URL", 0);
  if (*start == 0 || started < *start) return Fail("clock readings out of order", 0);
  if (leftovers) return Fail("processes left running", 0);
  printf("%.1f\n", (double)(started - *start) / 1000.0);
  return 0;
}
