#ifndef TESTS_SUPPORT_PROCESS_H_
#define TESTS_SUPPORT_PROCESS_H_

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace corvane_test {

using Strings = std::vector<std::string>;

struct ProcessResult {
  bool started = false, exited = false;  // exited: by exit, not by a signal nor at the time limit
  int exit_code = -1, signal = 0;
  bool timed_out = false;  // then killed with its process group
  int pid = 0;             // also the id of its process group, which its children share unless they leave it
  std::string out, err;
  double seconds = 0;
};

struct ProcessOptions {
  std::map<std::string, std::optional<std::string>> env;  // changes; nullopt removes a variable
  bool clear_environment = false;  // start from none but the sanitizers' settings
  std::string stdin_data;
  double timeout_seconds = 60;
};

// Runs argv[0] (a path) with the arguments byte for byte, without a shell.
ProcessResult RunProcess(const Strings& argv, const ProcessOptions& options = {});
// The argv prefix that runs a command as "nobody", since root ignores file modes.
Strings AsUnprivilegedUser();
bool RunningAsRoot();

}  // namespace corvane_test

#endif  // TESTS_SUPPORT_PROCESS_H_
