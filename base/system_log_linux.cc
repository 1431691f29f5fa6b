#include <errno.h>
#include <syslog.h>

#include <mutex>
#include <string>

#include "base/system_log.h"

namespace logging::internal {

namespace {

// Severity values of the facility; syslog.h takes the LOG_* names.
constexpr int kVerbose1 = -1;
constexpr int kInfo = 0;
constexpr int kWarning = 1;
constexpr int kError = 2;
constexpr int kFatal = 3;

// The application identifier; journald keeps it as SYSLOG_IDENTIFIER.
constexpr char kIdent[] = "com.halvard.corvane.dispatcher";

int PriorityFor(int severity) {
  switch (severity) {
    case kVerbose1:
      return LOG_DEBUG;
    case kInfo:
      return LOG_INFO;
    case kWarning:
      return LOG_NOTICE;
    case kError:
      return LOG_ERR;
    case kFatal:
      return LOG_CRIT;
    default:
      return LOG_NOTICE;
  }
}

}  // namespace

void WriteToSystemLog(int severity, const std::string& line) {
  static std::once_flag opened;
  std::call_once(opened, [] { openlog(kIdent, LOG_NDELAY, LOG_USER); });
  syslog(PriorityFor(severity), "%s", line.c_str());
}

}  // namespace logging::internal
