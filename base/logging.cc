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
int g_log_file = -1;
// What is at the name was refused (said once on standard error): not tried
// again until the next configuration.
bool g_log_file_refused = false;

std::mutex& FileMutex() {
  static std::mutex* mutex = new std::mutex;  // never destroyed: logging may run during exit
  return *mutex;
}

void SetLogFileName(const char* name) {
  if (!g_log_file_name) g_log_file_name = new std::string;
  *g_log_file_name = name;
  g_has_log_file_name = true;
}

// C0 control bytes and DEL. In the message of a line they become "%XX", so
// that no text from outside (a URL, a pattern, a path) can start a line of
// its own or hide text from a terminal.
bool IsControlByte(unsigned char c) { return c < 0x20 || c == 0x7f; }

size_t FindControlByte(const std::string& text, size_t from) {
  const unsigned char* data = reinterpret_cast<const unsigned char*>(text.data());
  size_t i = from;
  // 64 bytes at a time, without a branch per byte, which compilers turn into
  // vector instructions: URLs of megabytes go through here.
  for (; i + 64 <= text.size(); i += 64) {
    const unsigned char* chunk = data + i;
    unsigned char any = 0;
    for (int j = 0; j < 64; ++j) any |= (chunk[j] < 0x20) | (chunk[j] == 0x7f);
    if (any) break;
  }
  for (; i < text.size(); ++i) {
    if (IsControlByte(data[i])) return i;
  }
  return std::string::npos;
}

void EscapeControlBytes(std::string* text, size_t from) {
  size_t at = FindControlByte(*text, from);
  if (at == std::string::npos) return;
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string escaped;
  escaped.reserve(text->size() + 16);
  size_t done = 0;
  for (; at != std::string::npos; at = FindControlByte(*text, done)) {
    escaped.append(*text, done, at - done);
    unsigned char c = static_cast<unsigned char>((*text)[at]);
    escaped += '%';
    escaped += kHex[c >> 4];
    escaped += kHex[c & 0xf];
    done = at + 1;
  }
  escaped.append(*text, done, std::string::npos);
  text->swap(escaped);
}

// What standard error is, looked at once a second per thread rather than for
// every line (a line costs two writes, the looks three more system calls).
struct StderrKind {
  time_t second = -1;       // when it was looked at; -1: not yet
  bool null_device = true;  // leads nowhere useful: lines also go to the system log
  bool may_raise_sigpipe = true;  // a pipe or a socket
};
thread_local StderrKind t_stderr_kind;

// A forked child may redirect standard error at once: it looks again.
void ForgetStderrKind() { t_stderr_kind.second = -1; }

const StderrKind& CurrentStderrKind(time_t now) {
  static const int registered = pthread_atfork(nullptr, nullptr, &ForgetStderrKind);
  (void)registered;
  StderrKind& kind = t_stderr_kind;
  if (kind.second == now) return kind;
  kind.second = now;
  kind.null_device = true;
  kind.may_raise_sigpipe = true;
  struct stat err_stat;
  if (fstat(STDERR_FILENO, &err_stat) != 0) return kind;
  kind.may_raise_sigpipe = S_ISFIFO(err_stat.st_mode) || S_ISSOCK(err_stat.st_mode);
  struct stat null_stat;
  if (!S_ISCHR(err_stat.st_mode)) {
    kind.null_device = false;
  } else if (stat("/dev/null", &null_stat) == 0 && S_ISCHR(null_stat.st_mode)) {
    kind.null_device = err_stat.st_rdev == null_stat.st_rdev;
  }
  return kind;
}

// The local date and time to the second, "MMDD/HHMMSS", worked out once a
// second per thread. glibc's localtime_r follows a new time zone only after
// tzset(), whose results it keys on as well.
struct SecondStamp {
  long long second = -1;
#if defined(__GLIBC__)
  long zone = 0;
  int daylight = 0;
  const char* names[2] = {nullptr, nullptr};
#endif
  char text[64] = {};
};
thread_local SecondStamp t_second_stamp;

const char* LocalSecond(time_t now) {
  SecondStamp& stamp = t_second_stamp;
#if defined(__GLIBC__)
  bool same_zone = stamp.zone == ::timezone && stamp.daylight == ::daylight &&
                   stamp.names[0] == ::tzname[0] && stamp.names[1] == ::tzname[1];
#else
  bool same_zone = true;
#endif
  if (stamp.second == now && same_zone) return stamp.text;
  struct tm local;
  localtime_r(&now, &local);
  snprintf(stamp.text, sizeof(stamp.text), "%02d%02d/%02d%02d%02d", local.tm_mon + 1,
           local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  stamp.second = now;
#if defined(__GLIBC__)
  // Read after localtime_r, which runs tzset once if nothing has.
  stamp.zone = ::timezone;
  stamp.daylight = ::daylight;
  stamp.names[0] = ::tzname[0];
  stamp.names[1] = ::tzname[1];
#endif
  return stamp.text;
}

}  // namespace

namespace internal {

// Builds a line in a string that keeps its capacity from line to line.
class LineStream : public std::ostream {
 public:
  LineStream() : std::ostream(nullptr) {
    rdbuf(&buffer_);
    initial_flags_ = flags();
  }
  std::string& text() { return buffer_.text; }
  // Empty, with the formatting a new stream has.
  void Reset() {
    buffer_.text.clear();
    clear();
    flags(initial_flags_);
    precision(6);
    width(0);
    fill(' ');
  }

 private:
  class Buffer : public std::streambuf {
   public:
    std::string text;

   protected:
    int_type overflow(int_type c) override {
      if (!traits_type::eq_int_type(c, traits_type::eof())) {
        text.push_back(traits_type::to_char_type(c));
      }
      return traits_type::not_eof(c);
    }
    std::streamsize xsputn(const char* s, std::streamsize n) override {
      text.append(s, static_cast<size_t>(n));
      return n;
    }
  };
  Buffer buffer_;
  std::ios_base::fmtflags initial_flags_;
};

}  // namespace internal

namespace {

// Each thread's stream, made on its first line. Lines logged after it is
// gone (while the thread or the process ends) get a stream of their own.
enum class ThreadStreamState : int { kNone, kAlive, kGone };
thread_local ThreadStreamState t_stream_state = ThreadStreamState::kNone;
thread_local bool t_stream_in_use = false;

const char* BaseName(const char* file) {
  const char* p = file + strlen(file);
  while (p > file && p[-1] != '/' && p[-1] != '\\') --p;
  return p;
}

void AppendDecimal(std::string* out, unsigned long value, int min_digits) {
  char digits[24];
  char* end = digits + sizeof(digits);
  char* p = end;
  do {
    *--p = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value > 0);
  while (end - p < min_digits) *--p = '0';
  out->append(p, static_cast<size_t>(end - p));
}

// ":SEVERITY:file(line)] ", the part of the prefix that a statement repeats.
void AppendStatement(std::string* out, LogSeverity severity, const char* file, int line) {
  *out += ':';
  switch (severity) {
    case LOG_INFO: *out += "INFO"; break;
    case LOG_WARNING: *out += "WARNING"; break;
    case LOG_ERROR: *out += "ERROR"; break;
    case LOG_FATAL: *out += "FATAL"; break;
    default: *out += SeverityName(severity); break;
  }
  *out += ':';
  *out += BaseName(file);
  *out += '(';
  if (line < 0) *out += '-';
  AppendDecimal(out, line < 0 ? 0ul - static_cast<unsigned long>(line) : static_cast<unsigned long>(line), 1);
  *out += ")] ";
}

struct ThreadStream {
  ThreadStream() { t_stream_state = ThreadStreamState::kAlive; }
  ~ThreadStream() { t_stream_state = ThreadStreamState::kGone; }
  internal::LineStream stream;
  // The last statement's part of the prefix: a loop that logs repeats it.
  // The file name is compared by its text, which a caller may change.
  std::string file;
  int line = 0;
  LogSeverity severity = 0;
  std::string statement;
};

ThreadStream* TakeThreadStream() {
  if (t_stream_in_use || t_stream_state == ThreadStreamState::kGone) return nullptr;
  thread_local ThreadStream thread_stream;
  t_stream_in_use = true;
  thread_stream.stream.Reset();
  return &thread_stream;
}

// Writes all of `line` unless the descriptor fails; returns how much of it
// was written.
size_t WriteAll(int fd, const std::string& line) {
  const char* data = line.data();
  size_t left = line.size();
  while (left > 0) {
    ssize_t written = write(fd, data, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      break;
    }
    data += written;
    left -= static_cast<size_t>(written);
  }
  return line.size() - left;
}

// A standard error that is a closed pipe must not end the process: the
// write fails with EPIPE instead. Linux raises SIGPIPE on the writing thread,
// where it is blocked around the write and then consumed. macOS raises it for
// the whole process, where any other thread could take it, so there the
// descriptor is told not to raise it at all. Only a pipe or a socket raises
// it.
void WriteToStderr(const std::string& line, bool may_raise_sigpipe) {
  if (!may_raise_sigpipe) {
    WriteAll(STDERR_FILENO, line);
    return;
  }
#if defined(F_SETNOSIGPIPE)
  fcntl(STDERR_FILENO, F_SETNOSIGPIPE, 1);
#endif
  sigset_t pipe_signal, previous_mask, pending;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, &previous_mask);
  sigpending(&pending);
  const bool was_pending = sigismember(&pending, SIGPIPE) == 1;

  const bool broken_pipe = WriteAll(STDERR_FILENO, line) < line.size() && errno == EPIPE;

  // Only a signal that this write raised is taken, and only once it is
  // pending, so that sigwait returns at once.
  if (broken_pipe && !was_pending && sigpending(&pending) == 0 &&
      sigismember(&pending, SIGPIPE) == 1) {
    int taken;
    sigwait(&pipe_signal, &taken);
  }
  pthread_sigmask(SIG_SETMASK, &previous_mask, nullptr);
}

// Opens the named log file for appending. Log lines carry URLs with tokens,
// so it must be a regular file of this user with no other name, readable by
// its owner only (a wider mode is narrowed). Opening never waits (a FIFO
// without a reader) and never follows a final symbolic link. Whatever else
// is found there is refused with one line on standard error and left alone
// until the next configuration; a missing folder or a lacking permission is
// quietly tried again with the next line.
bool OpenLogFileLocked() {
  const char* name = g_log_file_name->c_str();
  int fd = open(name, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK,
                0600);
  const char* refusal = nullptr;
  struct stat st;
  if (fd < 0) {
    if (errno == ELOOP) {
      refusal = "a symbolic link";
    } else if (errno == ENXIO || errno == EISDIR) {  // a FIFO without a reader, a socket, a folder
      refusal = "not a regular file";
    } else {
      return false;
    }
  } else if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    refusal = "not a regular file";
  } else if (st.st_uid != geteuid()) {
    refusal = "another user's";
  } else if (st.st_nlink > 1) {
    refusal = "a hard link";
  } else if ((st.st_mode & 07777) != 0600 && fchmod(fd, 0600) != 0) {
    refusal = "open to others";
  }
  if (!refusal) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    g_log_file = fd;
    return true;
  }
  if (fd >= 0) close(fd);
  g_log_file_refused = true;
  std::string text = std::string("Not logging to a file that is ") + refusal + ": ";
  size_t path_start = text.size();
  text += name;
  EscapeControlBytes(&text, path_start);
  text += '\n';
  WriteToStderr(text, CurrentStderrKind(time(nullptr)).may_raise_sigpipe);
  return false;
}

// Appends the whole line or nothing. What a failing write (a full disk, the
// file size limit) has left of the line is cut off again, so that the next
// line, maybe the next run's, does not continue it.
void AppendLine(int fd, const std::string& line) {
  size_t appended = WriteAll(fd, line);
  if (appended == line.size() || appended == 0) return;
  off_t end = lseek(fd, 0, SEEK_CUR);  // just past what was appended
  if (end >= static_cast<off_t>(appended)) (void)!ftruncate(fd, end - static_cast<off_t>(appended));
}

void WriteToLogFile(const std::string& line) {
  std::lock_guard<std::mutex> lock(FileMutex());
  if (g_log_file < 0) {
    if (!g_has_log_file_name) SetLogFileName("debug.log");
    if (!(g_destinations & kLogToFile) || g_log_file_refused) return;
    if (!OpenLogFileLocked()) return;
  }
  AppendLine(g_log_file, line);
}

// A write beyond the file size limit (RLIMIT_FSIZE) raises SIGXFSZ, which
// would end the process before its launches: it is caught, and the write
// fails instead. Caught rather than ignored, so that programs we start get
// the default back. A disposition someone else chose is kept.
void IgnoreFileSizeSignal(int) {}

void CatchFileSizeSignal() {
  static std::once_flag once;
  std::call_once(once, [] {
    struct sigaction current;
    if (sigaction(SIGXFSZ, nullptr, &current) != 0 || (current.sa_flags & SA_SIGINFO) ||
        current.sa_handler != SIG_DFL) {
      return;
    }
    struct sigaction action = {};
    action.sa_handler = &IgnoreFileSizeSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(SIGXFSZ, &action, nullptr);
  });
}

}  // namespace

bool InitializeLogging(const LogSettings& settings) {
  CatchFileSizeSignal();
  g_destinations = settings.destinations;
  if (!(g_destinations & kLogToFile)) return true;

  std::lock_guard<std::mutex> lock(FileMutex());
  if (g_log_file >= 0) {
    close(g_log_file);
    g_log_file = -1;
    if (!g_has_log_file_name) g_destinations &= ~kLogToFile;
  }
  g_log_file_refused = false;
  if (!settings.log_file_path) {
    fprintf(stderr, "%s:%d: assertion %s failed: %s\n", __FILE__, __LINE__,
            "settings.log_file_path", "a log file path is required with kLogToFile");
    abort();
  }
  SetLogFileName(settings.log_file_path);
  if (settings.old_file_handling == DELETE_OLD_LOG_FILE) unlink(g_log_file_name->c_str());
  if (g_log_file < 0 && (g_destinations & kLogToFile)) return OpenLogFileLocked();
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
  ThreadStream* thread_stream = TakeThreadStream();
  if (thread_stream) {
    stream_ = &thread_stream->stream;
  } else {
    stream_ = new internal::LineStream;
    owns_stream_ = true;
  }
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  time_t seconds = tv.tv_sec;
  second_ = seconds;
  std::string& text = stream_->text();
  text += '[';
  text += LocalSecond(seconds);
  text += '.';
  AppendDecimal(&text, static_cast<unsigned long>(tv.tv_usec), 6);
  if (!thread_stream) {
    AppendStatement(&text, severity_, file_, line_);
  } else {
    if (thread_stream->line != line_ || thread_stream->severity != severity_ ||
        thread_stream->statement.empty() || thread_stream->file != file_) {
      thread_stream->statement.clear();
      AppendStatement(&thread_stream->statement, severity_, file_, line_);
      thread_stream->file = file_;
      thread_stream->line = line_;
      thread_stream->severity = severity_;
    }
    text += thread_stream->statement;
  }
  message_start_ = text.size();
}

LogMessage::~LogMessage() {
  Emit();
  if (owns_stream_) {
    delete stream_;
  } else {
    t_stream_in_use = false;
  }
  errno = saved_errno_;
}

std::ostream& LogMessage::stream() { return *stream_; }

void LogMessage::Emit() {
  std::string& line = stream_->text();
  EscapeControlBytes(&line, message_start_);
  line += '\n';

  if (g_message_handler &&
      g_message_handler(severity_, file_, line_, message_start_, line)) {
    // The handler took the line.
  } else {
    const StderrKind& stderr_kind = CurrentStderrKind(second_);
    if ((g_destinations & kLogToSystemLog) && stderr_kind.null_device) {
      internal::WriteToSystemLog(severity_, line);
    }
    if ((g_destinations & kLogToStderr) ||
        (severity_ >= LOG_ERROR && (g_destinations & ~kLogToFile) == 0)) {
      WriteToStderr(line, stderr_kind.may_raise_sigpipe);
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
