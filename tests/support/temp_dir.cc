#include "tests/support/temp_dir.h"

#include <fcntl.h>
#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

namespace corvane_test {

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/corvane-test-XXXXXX";
  char* made = mkdtemp(pattern.data());
  if (made) {
    path_ = made;
    // Readable by the unprivileged user that some tests switch to.
    chmod(path_.c_str(), 0755);
  }
}

TempDir::~TempDir() {
  if (!path_.empty()) RemoveTree(path_);
}

std::string TempDir::Child(const std::string& relative) const { return path_ + "/" + relative; }

bool MakeDirectories(const std::string& path) {
  for (size_t pos = 1; pos <= path.size(); ++pos) {
    if (pos == path.size() || path[pos] == '/') {
      std::string prefix = path.substr(0, pos);
      if (mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
  }
  return true;
}

bool WriteFile(const std::string& path, const std::string& contents, int mode) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < contents.size()) {
    ssize_t n = write(fd, contents.data() + done, contents.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      close(fd);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  fchmod(fd, static_cast<mode_t>(mode));
  return close(fd) == 0;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

bool FileExists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

void RemoveTree(const std::string& path) {
  nftw(
      path.c_str(),
      [](const char* name, const struct stat*, int type, struct FTW*) {
        if (type == FTW_DP) {
          chmod(name, 0700);
          rmdir(name);
        } else {
          unlink(name);
        }
        return 0;
      },
      16, FTW_DEPTH | FTW_PHYS);
}

}  // namespace corvane_test
