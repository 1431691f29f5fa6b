// Temporary folders and whole files, for tests.
#ifndef TESTS_SUPPORT_TEMP_DIR_H_
#define TESTS_SUPPORT_TEMP_DIR_H_

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace corvane_test {

inline bool MakeDirectories(const std::string& path) {  // mkdir -p, mode 0755
  std::error_code error;
  std::filesystem::create_directories(path, error);
  return !error;
}

inline bool WriteFile(const std::string& path, const std::string& contents, int mode = 0644) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  bool ok = fd >= 0 && write(fd, contents.data(), contents.size()) == static_cast<ssize_t>(contents.size()) &&
            fchmod(fd, static_cast<mode_t>(mode)) == 0;
  return fd >= 0 && close(fd) == 0 && ok;
}

inline std::string ReadFile(const std::string& path) {
  std::ostringstream out;
  out << std::ifstream(path, std::ios::binary).rdbuf();
  return out.str();
}

inline bool FileExists(const std::string& path) {  // a final symbolic link is not followed
  std::error_code error;
  return std::filesystem::exists(std::filesystem::symlink_status(path, error));
}

inline void RemoveTree(const std::string& path) {  // quiet about what is missing
  std::error_code error;
  std::filesystem::remove_all(path, error);
}

// A fresh folder under $TMPDIR (or /tmp), removed with everything in it.
class TempDir {
 public:
  TempDir() {
    const char* base = getenv("TMPDIR");
    path_ = std::string(base && *base ? base : "/tmp") + "/corvane-test-XXXXXX";
    // Open to the unprivileged user that some tests switch to.
    if (!mkdtemp(path_.data()) || chmod(path_.c_str(), 0755) != 0) path_.clear();
  }
  ~TempDir() { RemoveTree(path_); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string Child(const std::string& relative) const { return path_ + "/" + relative; }

 private:
  std::string path_;
};

}  // namespace corvane_test

#endif  // TESTS_SUPPORT_TEMP_DIR_H_
