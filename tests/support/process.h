#ifndef TESTS_SUPPORT_PROCESS_H_
#define TESTS_SUPPORT_PROCESS_H_

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace corvane_test {

struct ProcessResult {
  bool started = false;
  bool exited = false;      // ended by exit (not a signal, not killed by us)
  int exit_code = -1;       // when exited
  int signal = 0;           // when ended by a signal
  bool timed_out = false;   // killed after the time limit
  std::string out;          // standard output
  std::string err;          // standard error
  double seconds = 0;       // wall time from start to end
};

struct ProcessOptions {
  // The environment: the current one with these changes; a value of nullopt
  // removes the variable.
  std::map<std::string, std::optional<std::string>> env;
  // When set, the child starts with only these variables (env still applies).
  bool clear_environment = false;
  std::string stdin_data;
  std::string working_directory;
  double timeout_seconds = 60;
};

// Runs argv[0] (a path) with the arguments as given, byte for byte, no shell.
ProcessResult RunProcess(const std::vector<std::string>& argv, const ProcessOptions& options = {});

// The argv prefix that runs a command as the unprivileged user "nobody"
// (root ignores file modes, so tests of unreadable files need one).
std::vector<std::string> AsUnprivilegedUser();
bool RunningAsRoot();

}  // namespace corvane_test

#endif  // TESTS_SUPPORT_PROCESS_H_
