#include "base/files/file_util.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace base {

bool PathExists(const FilePath& path) {
  return !path.empty() && access(path.value().c_str(), F_OK) == 0;
}

bool GetFileInformation(const FilePath& path, FileInformation* info) {
  struct stat st;
  if (path.empty() || stat(path.value().c_str(), &st) != 0) return false;
  info->size = st.st_size;
  info->is_directory = (st.st_mode & 0xF000) == 0x4000;
  info->is_symbolic_link = (st.st_mode & 0xF000) == 0xA000;
  internal::FillFileTimes(path.value().c_str(), st, info);
  return true;
}

bool DoDeleteFile(const FilePath& path) {
  const char* name = path.value().c_str();
  struct stat st;
  if (lstat(name, &st) == 0) {
    int result = S_ISDIR(st.st_mode) ? rmdir(name) : unlink(name);
    if (result == 0) return true;
  }
  return errno == ENOENT;
}

bool EnsureStandardDescriptorsOpen() {
  // Each open takes the lowest free descriptor: the first above 2 shows that
  // 0 to 2 are taken.
  int fd;
  do {
    fd = open("/dev/null", O_RDWR);  // not close-on-exec: programs we start inherit 0 to 2
  } while (fd >= 0 && fd <= 2);
  if (fd < 0) return false;
  close(fd);
  return true;
}

bool PathIsReadable(const FilePath& path) {
  return !path.empty() && access(path.value().c_str(), R_OK) == 0;
}

namespace {

bool ReadToString(const FilePath& path, std::string* contents, size_t max_size, bool regular_only) {
  int fd = open(path.value().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return false;
  struct stat st;
  if (fstat(fd, &st) != 0 || S_ISDIR(st.st_mode) || (regular_only && !S_ISREG(st.st_mode)) ||
      (st.st_size > 0 && static_cast<uint64_t>(st.st_size) > max_size)) {
    close(fd);
    return false;
  }
  std::string data;
  if (st.st_size > 0) data.reserve(static_cast<size_t>(st.st_size));
  char buffer[65536];
  for (;;) {
    ssize_t got = read(fd, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    // A device may never end: the bound stops it too.
    if (got < 0 || static_cast<size_t>(got) > max_size - data.size()) {
      close(fd);
      return false;
    }
    if (got == 0) break;
    data.append(buffer, static_cast<size_t>(got));
  }
  close(fd);
  *contents = std::move(data);
  return true;
}

}  // namespace

bool ReadFileToString(const FilePath& path, std::string* contents, size_t max_size) {
  return ReadToString(path, contents, max_size, false);
}

bool ReadRegularFileToString(const FilePath& path, std::string* contents, size_t max_size) {
  return ReadToString(path, contents, max_size, true);
}

}  // namespace base
