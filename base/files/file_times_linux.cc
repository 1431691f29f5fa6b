#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>

#include "base/files/file_util.h"

namespace base::internal {

namespace {

TimePoint FromTimespec(const struct timespec& ts) { return TimePoint::FromPosix(ts.tv_sec, ts.tv_nsec); }

// The birth time from statx; on a file system that records none, the oldest
// time that it does record.
TimePoint BirthTime(const char* path, const struct stat& st) {
  struct statx stx;
  if (statx(AT_FDCWD, path, 0, STATX_BTIME, &stx) == 0 && (stx.stx_mask & STATX_BTIME)) {
    return TimePoint::FromPosix(stx.stx_btime.tv_sec, stx.stx_btime.tv_nsec);
  }
  return std::min({FromTimespec(st.st_mtim), FromTimespec(st.st_atim), FromTimespec(st.st_ctim)},
                  [](TimePoint a, TimePoint b) { return a.ToInternalValue() < b.ToInternalValue(); });
}

}  // namespace

void FillFileTimes(const char* path, const struct stat& st, FileInformation* info) {
  info->last_modified = FromTimespec(st.st_mtim);
  info->last_accessed = FromTimespec(st.st_atim);
  info->creation_time = BirthTime(path, st);
}

}  // namespace base::internal
