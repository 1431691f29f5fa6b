// The operating system's own log, one implementation per platform.
#ifndef BASE_SYSTEM_LOG_H_
#define BASE_SYSTEM_LOG_H_

#include <string>

namespace logging::internal {

// Writes the whole line (newline included) to the system log at the priority
// that corresponds to the severity.
void WriteToSystemLog(int severity, const std::string& line);

}  // namespace logging::internal

#endif  // BASE_SYSTEM_LOG_H_
