#include "base/files/file_util.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace base {

namespace {

TimePoint FromTimespec(const struct timespec& ts) { return TimePoint::FromPosix(ts.tv_sec, ts.tv_nsec); }

#if defined(__APPLE__)
TimePoint BirthTime(const char* path, const struct stat& st) {
  (void)path;
  return FromTimespec(st.st_birthtimespec);
}
#else
TimePoint BirthTime(const char* path, const struct stat& st) {
  struct statx stx;
  if (statx(AT_FDCWD, path, 0, STATX_BTIME, &stx) == 0 && (stx.stx_mask & STATX_BTIME)) {
    return TimePoint::FromPosix(stx.stx_btime.tv_sec, stx.stx_btime.tv_nsec);
  }
  // No birth time recorded: the oldest time the file system does record.
  return std::min({FromTimespec(st.st_mtim), FromTimespec(st.st_atim), FromTimespec(st.st_ctim)},
                  [](TimePoint a, TimePoint b) { return a.ToInternalValue() < b.ToInternalValue(); });
}
#endif

#if defined(__APPLE__)
const struct timespec& ModifiedTime(const struct stat& st) { return st.st_mtimespec; }
const struct timespec& AccessedTime(const struct stat& st) { return st.st_atimespec; }
#else
const struct timespec& ModifiedTime(const struct stat& st) { return st.st_mtim; }
const struct timespec& AccessedTime(const struct stat& st) { return st.st_atim; }
#endif

}  // namespace

bool PathExists(const FilePath& path) {
  return !path.empty() && access(path.value().c_str(), F_OK) == 0;
}

bool GetFileInformation(const FilePath& path, FileInformation* info) {
  struct stat st;
  if (path.empty() || stat(path.value().c_str(), &st) != 0) return false;
  info->size = st.st_size;
  info->is_directory = (st.st_mode & 0xF000) == 0x4000;
  info->is_symbolic_link = (st.st_mode & 0xF000) == 0xA000;
  info->last_modified = FromTimespec(ModifiedTime(st));
  info->last_accessed = FromTimespec(AccessedTime(st));
  info->creation_time = BirthTime(path.value().c_str(), st);
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

bool PathIsReadable(const FilePath& path) {
  return !path.empty() && access(path.value().c_str(), R_OK) == 0;
}

bool ReadFileToString(const FilePath& path, std::string* contents, size_t max_size) {
  int fd = open(path.value().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return false;
  struct stat st;
  if (fstat(fd, &st) != 0 || S_ISDIR(st.st_mode) ||
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

}  // namespace base
