#include "tests/support/process.h"

#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "tests/support/temp_dir.h"

extern char** environ;

namespace corvane_test {

namespace {

double Now() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

std::vector<char*> Pointers(const Strings& strings) {
  std::vector<char*> pointers;
  for (const std::string& s : strings) pointers.push_back(const_cast<char*>(s.c_str()));  // never written to
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

ProcessResult RunProcess(const Strings& argv, const ProcessOptions& options) {
  std::map<std::string, std::optional<std::string>> variables;
  for (char** e = environ; *e; ++e) {
    std::string entry = *e, name = entry.substr(0, entry.find('='));
    // A sanitized child reports as its parent was told to.
    if (!options.clear_environment || name.find("SAN_OPTIONS") != std::string::npos)
      variables[name] = entry.substr(std::min(name.size() + 1, entry.size()));
  }
  for (const auto& [name, value] : options.env) variables[name] = value;
  Strings env;
  for (const auto& [name, value] : variables) {
    if (value) env.push_back(name + "=" + *value);
  }
  // Files, not pipes: browsers that the program started may keep them open after it has ended.
  int fds[] = {memfd_create("in", MFD_CLOEXEC), memfd_create("out", MFD_CLOEXEC), memfd_create("err", MFD_CLOEXEC)};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (int i : {0, 1, 2}) posix_spawn_file_actions_adddup2(&actions, fds[i], i);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);  // a group of its own, to kill it whole
  ProcessResult result;
  double start = Now();
  pid_t pid = 0;
  result.started = pwrite(fds[0], options.stdin_data.data(), options.stdin_data.size(), 0) >= 0 && !argv.empty() &&
                   posix_spawn(&pid, argv[0].c_str(), &actions, &attributes, Pointers(argv).data(),
                               Pointers(env).data()) == 0;
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  int status = 0;
  for (pid_t done; result.started && (done = waitpid(pid, &status, WNOHANG)) != pid; usleep(2000)) {
    if (done < 0 && errno != EINTR) break;
    if (!result.timed_out && Now() - start > options.timeout_seconds) result.timed_out = kill(-pid, SIGKILL) == 0;
  }
  result.seconds = Now() - start;
  result.pid = pid;
  result.exited = result.started && !result.timed_out && WIFEXITED(status);
  result.exit_code = result.exited ? WEXITSTATUS(status) : -1;
  result.signal = result.started && WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  result.out = ReadFile("/proc/self/fd/" + std::to_string(fds[1]));
  result.err = ReadFile("/proc/self/fd/" + std::to_string(fds[2]));
  for (int fd : fds) close(fd);
  return result;
}

bool RunningAsRoot() { return geteuid() == 0; }

Strings AsUnprivilegedUser() { return {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"}; }

}  // namespace corvane_test
