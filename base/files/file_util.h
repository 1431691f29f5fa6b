// Single-call file operations. None logs; each reports failure by its result.
#ifndef BASE_FILES_FILE_UTIL_H_
#define BASE_FILES_FILE_UTIL_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/files/file_path.h"
#include "base/files/time.h"

struct stat;

namespace base {

struct FileInformation {
  int64_t size = 0;
  bool is_directory = false;
  bool is_symbolic_link = false;
  TimePoint last_modified;
  TimePoint last_accessed;
  // The birth time; where the file system records none, the oldest time it
  // does record.
  TimePoint creation_time;
};

// The system's existence test: symbolic links are followed, so a dangling link
// does not exist. The empty path does not exist.
bool PathExists(const FilePath& path);

// Follows symbolic links. On failure returns false and leaves *info alone.
bool GetFileInformation(const FilePath& path, FileInformation* info);

// Deletes one file, symbolic link (not its target) or empty directory, never
// recursively. A path that is already gone counts as deleted.
bool DoDeleteFile(const FilePath& path);

// Whether the current user may read the path (access with R_OK).
bool PathIsReadable(const FilePath& path);

// Reads a whole file of at most `max_size` bytes. False when it cannot be
// opened or read (a directory, for one) or holds more. Never waits for a
// writer: a FIFO without one reads as empty.
bool ReadFileToString(const FilePath& path, std::string* contents,
                      size_t max_size = static_cast<size_t>(-1));

// The same for a regular file only: a FIFO, a device or a directory is
// refused unread.
bool ReadRegularFileToString(const FilePath& path, std::string* contents, size_t max_size);

// Opens the null device on each of the standard descriptors 0, 1 and 2 that
// is closed, so that no file opened later (the log) becomes standard output
// or error and gets what is written there. Called first in main(). False
// when one of them stays closed.
bool EnsureStandardDescriptorsOpen();

namespace internal {
// The platform's part of GetFileInformation: the three times of the file
// that `st` describes, `path` being where it was read.
void FillFileTimes(const char* path, const struct stat& st, FileInformation* info);
}  // namespace internal

}  // namespace base

#endif  // BASE_FILES_FILE_UTIL_H_
