// The dispatcher's start-up before the application framework runs.
#ifndef DISPATCHER_DISPATCHER_MAIN_H_
#define DISPATCHER_DISPATCHER_MAIN_H_

namespace dispatcher {

// "Halvard/Corvane/logs/CorvaneDispatcher_debug.log" under the
// application-data directory.
inline constexpr char kLogFileRelativePath[] = "Halvard/Corvane/logs/CorvaneDispatcher_debug.log";

// A log file this many whole hours old (by its creation time) is replaced.
inline constexpr int kLogExpiryHours = 97;

// Finds the log file, configures logging for it and standard error, replaces
// an expired file and writes the banner.
void InitializeDispatcherLogging();

}  // namespace dispatcher

#endif  // DISPATCHER_DISPATCHER_MAIN_H_
