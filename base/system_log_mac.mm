#include "base/system_log.h"

#include <CoreFoundation/CoreFoundation.h>
#include <os/log.h>

#include <string>

namespace logging::internal {

namespace {

os_log_type_t TypeFor(int severity) {
  switch (severity) {
    case -1:
      return OS_LOG_TYPE_DEBUG;
    case 0:
      return OS_LOG_TYPE_INFO;
    case 2:
      return OS_LOG_TYPE_ERROR;
    case 3:
      return OS_LOG_TYPE_FAULT;
    default:
      return OS_LOG_TYPE_DEFAULT;
  }
}

// The main bundle's identifier as UTF-8; empty when there is none.
std::string MainBundleIdentifier() {
  CFBundleRef bundle = CFBundleGetMainBundle();
  if (!bundle) return std::string();
  CFStringRef identifier = CFBundleGetIdentifier(bundle);
  if (!identifier) return std::string();
  char buffer[1024];
  if (!CFStringGetCString(identifier, buffer, sizeof(buffer), kCFStringEncodingUTF8)) return std::string();
  return std::string(buffer);
}

}  // namespace

void WriteToSystemLog(int severity, const std::string& line) {
  std::string identifier = MainBundleIdentifier();
  // A new log object per line, none cached. Built with ARC, which releases
  // it at the end of this scope.
  os_log_t log = identifier.empty() ? OS_LOG_DEFAULT : os_log_create(identifier.c_str(), "base_logging");
  os_log_type_t type = TypeFor(severity);
  if (os_log_type_enabled(log, type)) os_log_with_type(log, type, "%{public}s", line.c_str());
}

}  // namespace logging::internal
