// A stand-in browser for launch tests. Each run leaves one record file in
// $CORVANE_RECORDER_DIR named "<name it was started as>-<pid>.rec", written
// under a temporary name and renamed, so a reader never sees half a record.
//
// A record is a sequence of NUL-terminated key/value pairs: "name" (base
// name of argv[0]), "pid", "ppid", "stdin" (where descriptor 0 leads), one
// "arg" per argv element after argv[0], byte for byte, one "fd" per other
// open descriptor (where it leads), and "env:<NAME>" for each of a few
// variables that is set.
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

namespace {

const char* const kRecordedVariables[] = {
    "GIO_LAUNCHED_DESKTOP_FILE", "GIO_LAUNCHED_DESKTOP_FILE_PID", "GIO_USE_VFS",
    "XDG_ACTIVATION_TOKEN",      "DESKTOP_STARTUP_ID",
};

void Add(std::string& record, const std::string& key, const std::string& value) {
  record += key;
  record.push_back('\0');
  record += value;
  record.push_back('\0');
}

std::string LinkTarget(const std::string& path) {
  char buffer[4096];
  ssize_t length = readlink(path.c_str(), buffer, sizeof(buffer));
  return length < 0 ? std::string() : std::string(buffer, static_cast<size_t>(length));
}

bool WriteAll(int fd, const std::string& data) {
  size_t written = 0;
  while (written < data.size()) {
    ssize_t n = write(fd, data.data() + written, data.size() - written);
    if (n <= 0) return false;
    written += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const char* directory = getenv("CORVANE_RECORDER_DIR");
  if (!directory || argc < 1) return 2;
  std::string name = argv[0];
  size_t slash = name.rfind('/');
  if (slash != std::string::npos) name = name.substr(slash + 1);

  std::string record;
  Add(record, "name", name);
  Add(record, "pid", std::to_string(getpid()));
  Add(record, "ppid", std::to_string(getppid()));
  Add(record, "stdin", LinkTarget("/proc/self/fd/0"));
  for (int i = 1; i < argc; ++i) Add(record, "arg", argv[i]);

  if (DIR* fds = opendir("/proc/self/fd")) {
    int own = dirfd(fds);
    while (struct dirent* entry = readdir(fds)) {
      int fd = atoi(entry->d_name);
      if (entry->d_name[0] == '.' || fd <= 2 || fd == own) continue;
      Add(record, "fd", LinkTarget(std::string("/proc/self/fd/") + entry->d_name));
    }
    closedir(fds);
  }
  for (const char* variable : kRecordedVariables) {
    if (const char* value = getenv(variable)) Add(record, std::string("env:") + variable, value);
  }

  std::string final_path = std::string(directory) + "/" + name + "-" + std::to_string(getpid()) + ".rec";
  std::string temporary_path = std::string(directory) + "/.partial-" + std::to_string(getpid());
  int fd = open(temporary_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return 3;
  bool ok = WriteAll(fd, record);
  ok = close(fd) == 0 && ok;
  if (!ok || rename(temporary_path.c_str(), final_path.c_str()) != 0) return 4;
  return 0;
}
