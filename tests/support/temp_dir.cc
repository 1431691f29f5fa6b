#include "tests/support/temp_dir.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace corvane_test {

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  path_ = std::string(base && *base ? base : "/tmp") + "/corvane-test-XXXXXX";
  // Open to the unprivileged user that some tests switch to.
  if (!mkdtemp(path_.data()) || chmod(path_.c_str(), 0755) != 0) path_.clear();
}

TempDir::~TempDir() { RemoveTree(path_); }

bool MakeDirectories(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  return !error;
}

bool WriteFile(const std::string& path, const std::string& contents, int mode) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  bool ok = fd >= 0 && write(fd, contents.data(), contents.size()) == static_cast<ssize_t>(contents.size()) &&
            fchmod(fd, static_cast<mode_t>(mode)) == 0;
  return fd >= 0 && close(fd) == 0 && ok;
}

std::string ReadFile(const std::string& path) {
  std::ostringstream out;
  out << std::ifstream(path, std::ios::binary).rdbuf();
  return out.str();
}

bool FileExists(const std::string& path) {
  std::error_code error;
  return std::filesystem::exists(std::filesystem::symlink_status(path, error));
}

void RemoveTree(const std::string& path) {
  std::error_code error;
  std::filesystem::remove_all(path, error);
}

}  // namespace corvane_test
