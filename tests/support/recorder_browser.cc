// A stand-in browser: each run leaves $CORVANE_RECORDER_DIR/<name it was started as>-<pid>.rec, renamed into place
// whole, of NUL-terminated key and value pairs: "name", "pid", "ppid", "stdin" (where descriptor 0 leads), "arg" for
// each argument, byte for byte, "fd" for each other open descriptor, "env:NAME" for a few variables that are set.
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

std::string LinkTarget(const std::string& path) {
  std::error_code error;
  return std::filesystem::read_symlink(path, error).string();
}

int main(int argc, char** argv) {
  const char* directory = getenv("CORVANE_RECORDER_DIR");
  if (!directory || argc < 1) return 2;
  std::string name = std::string(argv[0]).substr(std::string(argv[0]).rfind('/') + 1), record;
  auto add = [&record](const std::string& key, const std::string& value) { record += key + '\0' + value + '\0'; };
  add("name", name);
  add("pid", std::to_string(getpid()));
  add("ppid", std::to_string(getppid()));
  add("stdin", LinkTarget("/proc/self/fd/0"));
  for (int i = 1; i < argc; ++i) add("arg", argv[i]);
  DIR* fds = opendir("/proc/self/fd");
  while (struct dirent* entry = fds ? readdir(fds) : nullptr) {
    int fd = atoi(entry->d_name);
    if (fd > 2 && fd != dirfd(fds)) add("fd", LinkTarget("/proc/self/fd/" + std::to_string(fd)));
  }
  if (fds) closedir(fds);
  for (const char* variable : {"GIO_LAUNCHED_DESKTOP_FILE", "GIO_LAUNCHED_DESKTOP_FILE_PID", "GIO_USE_VFS",
                               "XDG_ACTIVATION_TOKEN", "DESKTOP_STARTUP_ID"}) {
    if (const char* value = getenv(variable)) add(std::string("env:") + variable, value);
  }
  std::string path = std::string(directory) + "/" + name + "-" + std::to_string(getpid());
  std::ofstream out(path + ".partial", std::ios::binary);
  if (!(out << record).flush()) return 3;
  return rename((path + ".partial").c_str(), (path + ".rec").c_str()) == 0 ? 0 : 4;
}
