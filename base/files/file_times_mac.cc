#include <sys/stat.h>

#include "base/files/file_util.h"

namespace base::internal {

namespace {

TimePoint FromTimespec(const struct timespec& ts) { return TimePoint::FromPosix(ts.tv_sec, ts.tv_nsec); }

}  // namespace

// The creation time is the birth time that stat reports.
void FillFileTimes(const char*, const struct stat& st, FileInformation* info) {
  info->last_modified = FromTimespec(st.st_mtimespec);
  info->last_accessed = FromTimespec(st.st_atimespec);
  info->creation_time = FromTimespec(st.st_birthtimespec);
}

}  // namespace base::internal
