// A stand-in browser: each run leaves $CORVANE_RECORDER_DIR/<name it was started as>-<pid>.rec (browser_record.h).
#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

std::string g_record;

void Add(const std::string& key, const std::string& value) { g_record += key + '\0' + value + '\0'; }

std::string LinkTarget(const std::string& path) {
  std::error_code error;
  return std::filesystem::read_symlink(path, error).string();
}

int Save(const std::string& name) {
  std::string path = std::string(getenv("CORVANE_RECORDER_DIR")) + "/" + name + "-" + std::to_string(getpid());
  std::ofstream out(path + ".partial", std::ios::binary);
  if (!(out << g_record).flush()) return 3;
  return rename((path + ".partial").c_str(), (path + ".rec").c_str()) == 0 ? 0 : 3;
}

int main(int argc, char** argv) {
  if (!getenv("CORVANE_RECORDER_DIR")) return 2;
  std::string name = argv[0];
  name = name.substr(name.rfind('/') + 1);
  Add("name", name);
  Add("pid", std::to_string(getpid()));
  Add("stdin", LinkTarget("/proc/self/fd/0"));
  for (int i = 1; i < argc; ++i) Add("arg", argv[i]);
  DIR* fds = opendir("/proc/self/fd");
  while (struct dirent* entry = fds ? readdir(fds) : nullptr) {
    int fd = atoi(entry->d_name);
    if (fd > 2 && fd != dirfd(fds)) Add("fd", LinkTarget("/proc/self/fd/" + std::to_string(fd)));
  }
  if (fds) closedir(fds);
  for (const char* variable : {"GIO_LAUNCHED_DESKTOP_FILE", "GIO_LAUNCHED_DESKTOP_FILE_PID", "GIO_USE_VFS",
                               "XDG_ACTIVATION_TOKEN", "DESKTOP_STARTUP_ID"}) {
    if (const char* value = getenv(variable)) Add(std::string("env:") + variable, value);
  }
  return Save(name);
}
