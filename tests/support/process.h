// Real child processes for tests: argv byte for byte, without a shell, in a process group of their own.
#ifndef TESTS_SUPPORT_PROCESS_H_
#define TESTS_SUPPORT_PROCESS_H_

#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

extern char** environ;

namespace corvane_test {

using Strings = std::vector<std::string>;

struct ProcessResult {
  bool exited = false;  // by exit, not by a signal nor at the time limit (then killed with its process group)
  int exit_code = -1, signal = 0;
  int pid = 0;  // also the id of its process group, which its children share unless they leave it
  std::string out, err;
  double seconds = 0;
};

struct ProcessOptions {
  std::map<std::string, std::optional<std::string>> env;  // changes; nullopt removes a variable
  bool clear_environment = false;  // start from none but the sanitizers' settings
  std::string stdin_data;
  double timeout_seconds = 60;
};

inline ProcessResult RunProcess(const Strings& argv, const ProcessOptions& options = {}) {
  std::map<std::string, std::optional<std::string>> variables;
  for (char** e = environ; *e; ++e) {
    std::string entry = *e, name = entry.substr(0, entry.find('='));
    // A sanitized child reports as its parent was told to, GLib's memory included (G_SLICE).
    if (!options.clear_environment || name.find("SAN_OPTIONS") != std::string::npos || name == "G_SLICE")
      variables[name] = entry.substr(std::min(name.size() + 1, entry.size()));
  }
  for (const auto& [name, value] : options.env) variables[name] = value;
  Strings entries;
  for (const auto& [name, value] : variables)
    if (value) entries.push_back(name + "=" + *value);
  std::vector<char*> args, env;  // never written to
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  for (std::string& entry : entries) env.push_back(entry.data());
  args.push_back(nullptr);
  env.push_back(nullptr);
  // Files, not pipes: browsers that the program started may keep them open after it has ended.
  int fds[] = {memfd_create("in", MFD_CLOEXEC), memfd_create("out", MFD_CLOEXEC), memfd_create("err", MFD_CLOEXEC)};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (int i : {0, 1, 2}) posix_spawn_file_actions_adddup2(&actions, fds[i], i);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);  // a group of its own, to kill it whole
  auto start = std::chrono::steady_clock::now();
  auto seconds = [&start] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };
  pid_t pid = 0;
  bool started = pwrite(fds[0], options.stdin_data.data(), options.stdin_data.size(), 0) >= 0 && !argv.empty() &&
                 posix_spawn(&pid, argv[0].c_str(), &actions, &attributes, args.data(), env.data()) == 0;
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  int status = 0;
  bool timed_out = false;
  for (pid_t done; started && (done = waitpid(pid, &status, WNOHANG)) != pid; usleep(2000)) {
    if (done < 0 && errno != EINTR) break;
    if (!timed_out && seconds() > options.timeout_seconds) timed_out = kill(-pid, SIGKILL) == 0;
  }
  bool exited = started && !timed_out && WIFEXITED(status);
  ProcessResult result = {exited, exited ? WEXITSTATUS(status) : -1,
                          started && WIFSIGNALED(status) ? WTERMSIG(status) : 0, pid,
                          ReadFile("/proc/self/fd/" + std::to_string(fds[1])),
                          ReadFile("/proc/self/fd/" + std::to_string(fds[2])), seconds()};
  for (int fd : fds) close(fd);
  return result;
}

inline bool RunningAsRoot() { return geteuid() == 0; }
// The argv prefix that runs a command as "nobody", since root ignores file modes.
inline Strings AsUnprivilegedUser() {
  return {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"};
}

}  // namespace corvane_test

#endif  // TESTS_SUPPORT_PROCESS_H_
