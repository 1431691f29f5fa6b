#include "base/logging.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <iomanip>
#include <mutex>
#include <string>

#include "base/system_log.h"

namespace logging {

namespace {

// Process-wide settings. They are written during start-up, before other
// threads log, and are therefore plain variables.
LoggingDestination g_destinations = kLogToSystemLog | kLogToStderr;
int g_min_log_level = LOG_WARNING;
LogMessageHandler g_message_handler = nullptr;

// Guarded by FileMutex().
bool g_has_log_file_name = false;
std::string* g_log_file_name = nullptr;
FILE* g_log_file = nullptr;

std::mutex& FileMutex() {
  static std::mutex* mutex = new std::mutex;  // never destroyed: logging may run during exit
  return *mutex;
}

void SetLogFileName(const char* name) {
  if (!g_log_file_name) g_log_file_name = new std::string;
  *g_log_file_name = name;
  g_has_log_file_name = true;
}

// Opens the named log file for appending. Log lines may carry URLs with
// tokens in them, so a file that we create is readable by its owner only.
bool OpenLogFileLocked() {
  int fd = open(g_log_file_name->c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  g_log_file = fdopen(fd, "a");
  if (!g_log_file) {
    close(fd);
    return false;
  }
  return true;
}

// True when standard error leads nowhere useful (the null device), so that
// the line should also go to the system log.
bool StderrIsNullDevice() {
  struct stat err_stat;
  if (fstat(STDERR_FILENO, &err_stat) != 0) return true;
  if (!S_ISCHR(err_stat.st_mode)) return false;
  struct stat null_stat;
  if (stat("/dev/null", &null_stat) != 0 || !S_ISCHR(null_stat.st_mode)) return true;
  return err_stat.st_rdev == null_stat.st_rdev;
}

// A standard error that is a closed pipe must not end the process: the
// write fails with EPIPE instead. Linux raises SIGPIPE on the writing thread,
// where it is blocked around the write and then consumed. macOS raises it for
// the whole process, where any other thread could take it, so there the
// descriptor is told not to raise it at all.
void WriteToStderr(const std::string& line) {
#if defined(F_SETNOSIGPIPE)
  fcntl(STDERR_FILENO, F_SETNOSIGPIPE, 1);
#endif
  sigset_t pipe_signal, previous_mask, pending;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, &previous_mask);
  sigpending(&pending);
  const bool was_pending = sigismember(&pending, SIGPIPE) == 1;

  const char* data = line.data();
  size_t left = line.size();
  bool broken_pipe = false;
  while (left > 0) {
    ssize_t written = write(STDERR_FILENO, data, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      broken_pipe = errno == EPIPE;
      break;
    }
    data += written;
    left -= static_cast<size_t>(written);
  }

  // Only a signal that this write raised is taken, and only once it is
  // pending, so that sigwait returns at once.
  if (broken_pipe && !was_pending && sigpending(&pending) == 0 &&
      sigismember(&pending, SIGPIPE) == 1) {
    int taken;
    sigwait(&pipe_signal, &taken);
  }
  pthread_sigmask(SIG_SETMASK, &previous_mask, nullptr);
}

void WriteToLogFile(const std::string& line) {
  std::lock_guard<std::mutex> lock(FileMutex());
  if (!g_log_file) {
    if (!g_has_log_file_name) SetLogFileName("debug.log");
    if (!(g_destinations & kLogToFile)) return;
    if (!OpenLogFileLocked()) return;
  }
  fwrite(line.data(), 1, line.size(), g_log_file);
  fflush(g_log_file);
}

const char* BaseName(const char* file) {
  const char* base = file;
  for (const char* p = file; *p; ++p) {
    if (*p == '/' || *p == '\\') base = p + 1;
  }
  return base;
}

}  // namespace

bool InitializeLogging(const LogSettings& settings) {
  g_destinations = settings.destinations;
  if (!(g_destinations & kLogToFile)) return true;

  std::lock_guard<std::mutex> lock(FileMutex());
  if (g_log_file) {
    fclose(g_log_file);
    g_log_file = nullptr;
    if (!g_has_log_file_name) g_destinations &= ~kLogToFile;
  }
  if (!settings.log_file_path) {
    fprintf(stderr, "%s:%d: assertion %s failed: %s\n", __FILE__, __LINE__,
            "settings.log_file_path", "a log file path is required with kLogToFile");
    abort();
  }
  SetLogFileName(settings.log_file_path);
  if (settings.old_file_handling == DELETE_OLD_LOG_FILE) unlink(g_log_file_name->c_str());
  if (!g_log_file && (g_destinations & kLogToFile)) return OpenLogFileLocked();
  return true;
}

void SetMinimumLogLevel(int level) { g_min_log_level = level < LOG_FATAL ? level : LOG_FATAL; }

int GetMinimumLogLevel() { return g_min_log_level; }

bool ShouldLog(LogSeverity severity) {
  if (severity < g_min_log_level) return false;
  return g_destinations != LOG_NONE || g_message_handler != nullptr || severity >= LOG_ERROR;
}

void SetLogMessageHandler(LogMessageHandler handler) { g_message_handler = handler; }

std::string SeverityName(LogSeverity severity) {
  switch (severity) {
    case LOG_INFO:
      return "INFO";
    case LOG_WARNING:
      return "WARNING";
    case LOG_ERROR:
      return "ERROR";
    case LOG_FATAL:
      return "FATAL";
    default:
      break;
  }
  if (severity > LOG_FATAL) return "UNKNOWN";
  return "VERBOSE" + std::to_string(-static_cast<int64_t>(severity));
}

LogMessage::LogMessage(const char* file, int line, LogSeverity severity)
    : severity_(severity), file_(file), line_(line), saved_errno_(errno) {
  errno = 0;
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  time_t seconds = tv.tv_sec;
  struct tm local;
  localtime_r(&seconds, &local);
  char timestamp[32];
  snprintf(timestamp, sizeof(timestamp), "%02d%02d/%02d%02d%02d.%06ld", local.tm_mon + 1,
           local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
           static_cast<long>(tv.tv_usec));
  stream_ << '[' << timestamp << ':' << SeverityName(severity_) << ':' << BaseName(file_) << '('
          << line_ << ")] ";
  message_start_ = static_cast<size_t>(stream_.tellp());
}

LogMessage::~LogMessage() {
  Emit();
  errno = saved_errno_;
}

void LogMessage::Emit() {
  stream_ << '\n';
  const std::string line = stream_.str();

  if (g_message_handler &&
      g_message_handler(severity_, file_, line_, message_start_, line)) {
    // The handler took the line.
  } else {
    if ((g_destinations & kLogToSystemLog) && StderrIsNullDevice()) {
      internal::WriteToSystemLog(severity_, line);
    }
    if ((g_destinations & kLogToStderr) ||
        (severity_ >= LOG_ERROR && (g_destinations & ~kLogToFile) == 0)) {
      WriteToStderr(line);
    }
    if (g_destinations & kLogToFile) WriteToLogFile(line);
  }

  if (severity_ == LOG_FATAL) {
    // Kept on the stack so that a crash dump shows the reason.
    char crash_line[1024];
    size_t length = line.size() < sizeof(crash_line) - 1 ? line.size() : sizeof(crash_line) - 1;
    memcpy(crash_line, line.data(), length);
    crash_line[length] = '\0';
    asm volatile("" : : "r"(crash_line) : "memory");
    __builtin_trap();
  }
}

}  // namespace logging
