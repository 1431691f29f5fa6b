#include "tests/support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace corvane_test {

namespace {

double Now() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

std::vector<std::string> BuildEnvironment(const ProcessOptions& options) {
  std::map<std::string, std::string> vars;
  for (char** e = environ; *e; ++e) {
    const char* eq = strchr(*e, '=');
    if (!eq) continue;
    std::string name(*e, static_cast<size_t>(eq - *e));
    // A cleared environment still keeps the sanitizers' settings, so that a
    // sanitized child reports as its parent was told to.
    bool sanitizer = name.size() > 8 && name.compare(name.size() - 8, 8, "_OPTIONS") == 0 &&
                     (name.rfind("ASAN", 0) == 0 || name.rfind("TSAN", 0) == 0 ||
                      name.rfind("UBSAN", 0) == 0 || name.rfind("LSAN", 0) == 0);
    if (!options.clear_environment || sanitizer) vars[name] = eq + 1;
  }
  for (const auto& [name, value] : options.env) {
    if (value)
      vars[name] = *value;
    else
      vars.erase(name);
  }
  std::vector<std::string> result;
  for (const auto& [name, value] : vars) result.push_back(name + "=" + value);
  return result;
}

}  // namespace

ProcessResult RunProcess(const std::vector<std::string>& argv, const ProcessOptions& options) {
  ProcessResult result;
  if (argv.empty()) return result;
  std::vector<std::string> env_strings = BuildEnvironment(options);
  std::vector<char*> env_ptrs;
  for (auto& s : env_strings) env_ptrs.push_back(s.data());
  env_ptrs.push_back(nullptr);
  std::vector<std::string> args = argv;
  std::vector<char*> arg_ptrs;
  for (auto& s : args) arg_ptrs.push_back(s.data());
  arg_ptrs.push_back(nullptr);

  int in_pipe[2], out_pipe[2], err_pipe[2];
  if (pipe2(in_pipe, O_CLOEXEC) || pipe2(out_pipe, O_CLOEXEC) || pipe2(err_pipe, O_CLOEXEC)) return result;

  double start = Now();
  pid_t pid = fork();
  if (pid < 0) return result;
  if (pid == 0) {
    setpgid(0, 0);
    dup2(in_pipe[0], 0);
    dup2(out_pipe[1], 1);
    dup2(err_pipe[1], 2);
    if (!options.working_directory.empty() && chdir(options.working_directory.c_str()) != 0) _exit(126);
    execve(arg_ptrs[0], arg_ptrs.data(), env_ptrs.data());
    _exit(127);
  }
  result.started = true;
  close(in_pipe[0]);
  close(out_pipe[1]);
  close(err_pipe[1]);

  // Feed standard input in full, then close it.
  signal(SIGPIPE, SIG_IGN);
  size_t fed = 0;
  int in_fd = in_pipe[1];
  fcntl(in_fd, F_SETFL, O_NONBLOCK);
  if (options.stdin_data.empty()) {
    close(in_fd);
    in_fd = -1;
  }

  int out_fd = out_pipe[0], err_fd = err_pipe[0];
  char buffer[65536];
  double deadline = start + options.timeout_seconds;
  // A browser that the program started may keep the pipes open after the
  // program itself has ended: read on for a moment only, then stop.
  int status = 0;
  bool reaped = false;
  double reaped_at = 0;
  while (out_fd >= 0 || err_fd >= 0) {
    if (!reaped && waitpid(pid, &status, WNOHANG) == pid) {
      reaped = true;
      reaped_at = Now();
    }
    if (reaped && Now() - reaped_at > 0.5) break;
    struct pollfd fds[3];
    int n = 0;
    if (out_fd >= 0) fds[n++] = {out_fd, POLLIN, 0};
    if (err_fd >= 0) fds[n++] = {err_fd, POLLIN, 0};
    if (in_fd >= 0) fds[n++] = {in_fd, POLLOUT, 0};
    double left = deadline - Now();
    if (left <= 0) {
      kill(-pid, SIGKILL);
      kill(pid, SIGKILL);
      result.timed_out = true;
      break;
    }
    int ready = poll(fds, static_cast<nfds_t>(n), left < 0.05 ? static_cast<int>(left * 1000) + 1 : 50);
    if (ready < 0 && errno != EINTR) break;
    for (int i = 0; i < n; ++i) {
      if (!fds[i].revents) continue;
      if (fds[i].fd == in_fd) {
        ssize_t w = write(in_fd, options.stdin_data.data() + fed, options.stdin_data.size() - fed);
        if (w > 0) fed += static_cast<size_t>(w);
        if (w < 0 && errno != EAGAIN && errno != EINTR) fed = options.stdin_data.size();
        if (fed == options.stdin_data.size()) {
          close(in_fd);
          in_fd = -1;
        }
        continue;
      }
      ssize_t got = read(fds[i].fd, buffer, sizeof(buffer));
      if (got > 0) {
        (fds[i].fd == out_fd ? result.out : result.err).append(buffer, static_cast<size_t>(got));
      } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
        close(fds[i].fd);
        if (fds[i].fd == out_fd) out_fd = -1;
        else err_fd = -1;
      }
    }
  }
  if (in_fd >= 0) close(in_fd);
  if (out_fd >= 0) close(out_fd);
  if (err_fd >= 0) close(err_fd);

  for (; !reaped;) {
    pid_t done = waitpid(pid, &status, result.timed_out ? 0 : WNOHANG);
    if (done == pid) {
      reaped = true;
      break;
    }
    if (done < 0 && errno != EINTR) break;
    if (Now() > deadline && !result.timed_out) {
      kill(-pid, SIGKILL);
      kill(pid, SIGKILL);
      result.timed_out = true;
      continue;
    }
    usleep(2000);
  }
  result.seconds = Now() - start;
  if (!result.timed_out) {
    if (WIFEXITED(status)) {
      result.exited = true;
      result.exit_code = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
      result.signal = WTERMSIG(status);
    }
  }
  return result;
}

bool RunningAsRoot() { return geteuid() == 0; }

std::vector<std::string> AsUnprivilegedUser() {
  return {"/usr/bin/setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "--"};
}

}  // namespace corvane_test
