// Process-wide logging facility: one line per statement, to a log file, the
// system log and standard error, in the fixed format
// "[MMDD/HHMMSS.uuuuuu:SEVERITY:file(line)] message\n". Control bytes of the
// message (C0 and DEL) are written as "%XX": each line is one record.
#ifndef BASE_LOGGING_H_
#define BASE_LOGGING_H_

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

namespace logging {

using LogSeverity = int;
constexpr LogSeverity LOG_VERBOSE = -1;
constexpr LogSeverity LOG_INFO = 0;
constexpr LogSeverity LOG_WARNING = 1;
constexpr LogSeverity LOG_ERROR = 2;
constexpr LogSeverity LOG_FATAL = 3;

using LoggingDestination = uint32_t;
constexpr LoggingDestination LOG_NONE = 0;
constexpr LoggingDestination kLogToFile = 1u << 0;
constexpr LoggingDestination kLogToSystemLog = 1u << 1;
constexpr LoggingDestination kLogToStderr = 1u << 2;

enum OldFileDeletionState : int32_t {
  DELETE_OLD_LOG_FILE = 0,
  APPEND_TO_OLD_LOG_FILE = 1,
};

struct LogSettings {
  LoggingDestination destinations = kLogToSystemLog | kLogToStderr;
  // Must not be null when kLogToFile is set; copied by InitializeLogging.
  const char* log_file_path = nullptr;
  // Kept for callers that set it; file writes are always serialised by one
  // in-process mutex and the file itself is never locked.
  int32_t lock_mode = 0;
  OldFileDeletionState old_file_handling = APPEND_TO_OLD_LOG_FILE;
};

// With kLogToFile the file is opened at once. Only a regular file of this
// user with no other name is written to, its mode narrowed to 0600; anything
// else (a link, a FIFO) is refused with one line on standard error. Returns
// false only when the log file was to be opened and could not be.
bool InitializeLogging(const LogSettings& settings);

// Stores min(level, LOG_FATAL).
void SetMinimumLogLevel(int level);
int GetMinimumLogLevel();

bool ShouldLog(LogSeverity severity);

// A handler sees every emitted line first; returning true keeps the line from
// the system log, standard error and the file. The dispatcher installs none;
// tools that reuse the core capture its lines this way.
using LogMessageHandler = bool (*)(LogSeverity severity, const char* file,
                                   int line, size_t message_start,
                                   const std::string& str);
void SetLogMessageHandler(LogMessageHandler handler);

// The name written in the line: INFO, WARNING, ERROR, FATAL, UNKNOWN for 4 and
// above, VERBOSE<n> for -n.
std::string SeverityName(LogSeverity severity);

namespace internal {
class LineStream;
}  // namespace internal

// One log statement. Saves errno at construction and restores it after the
// line has been emitted, so logging never disturbs the caller's errno.
class LogMessage {
 public:
  LogMessage(const char* file, int line, LogSeverity severity);
  ~LogMessage();
  LogMessage(const LogMessage&) = delete;
  LogMessage& operator=(const LogMessage&) = delete;

  std::ostream& stream();

 private:
  void Emit();

  LogSeverity severity_;
  const char* file_;
  int line_;
  // The thread's stream, reused from line to line; a statement logged while
  // another is being built gets one of its own.
  internal::LineStream* stream_;
  bool owns_stream_ = false;
  size_t message_start_ = 0;
  int saved_errno_;
  long long second_ = 0;  // of the line's time stamp
};

// Turns the stream expression of LOG() into void so that it fits the ternary.
class LogMessageVoidify {
 public:
  void operator&(std::ostream&) {}
};

}  // namespace logging

#define CORVANE_LAZY_STREAM(stream, condition) \
  !(condition) ? (void)0 : ::logging::LogMessageVoidify() & (stream)

// The message arguments are evaluated only when the severity is enabled.
#define LOG(severity)                                                     \
  CORVANE_LAZY_STREAM(                                                    \
      ::logging::LogMessage(__FILE__, __LINE__, ::logging::LOG_##severity) \
          .stream(),                                                      \
      ::logging::ShouldLog(::logging::LOG_##severity))

#define VLOG(verbose_level)                                             \
  CORVANE_LAZY_STREAM(                                                  \
      ::logging::LogMessage(__FILE__, __LINE__, -(verbose_level)).stream(), \
      ::logging::ShouldLog(-(verbose_level)))

#endif  // BASE_LOGGING_H_
