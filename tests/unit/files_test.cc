// Paths, files and time: what start-up uses to find its log file and decide when it has expired.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "base/files/file_path.h"
#include "base/files/file_util.h"
#include "base/files/path_service.h"
#include "base/files/time.h"
#include "gtest/gtest.h"
#include "tests/support/temp_dir.h"

namespace base {
namespace {

using corvane_test::FileExists;

TEST(FilePathTest, AppendJoinsWithOneSeparator) {
  const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
      {"/a//", "b", "/a/b"}, {"/", "b", "/b"}, {"", "b", "b"}, {".", "b", "b"}, {".", "", "."}, {"/a/", "", "/a"},
      {"a", "../b/./c", "a/../b/./c"}, {"a", std::string("b\0c", 3), "a/b"},
  };
  for (const auto& [path, component, joined] : cases)
    EXPECT_EQ(AppendPath(FilePath(path), component).value(), joined) << path << " + " << component;
  // A user without a configuration folder, a home or a password entry has no folder for the dispatcher's files.
  FilePath folder;
  if (geteuid() != 0) return;  // only root can take an id without a password entry
  EXPECT_EXIT({ unsetenv("HOME"); setenv("XDG_CONFIG_HOME", "relative", 1);
                _exit(setuid(4242) == 0 && !LookupPath(DIR_APP_DATA, &folder) && folder.empty() ? 0 : 1); },
              ::testing::ExitedWithCode(0), "");
}

TEST(FileUtilTest, InformationFollowsLinksKeepsTheBirthTimeAndDeletionRemovesOneEntry) {
  corvane_test::TempDir dir;
  std::string file = dir.Child("file"), link = dir.Child("link"), full = dir.Child("full"), empty = dir.Child("empty");
  ASSERT_TRUE(corvane_test::WriteFile(file, "12345") && corvane_test::MakeDirectories(empty));
  ASSERT_TRUE(corvane_test::MakeDirectories(full) && corvane_test::WriteFile(full + "/inside", "y"));
  ASSERT_EQ(symlink(file.c_str(), link.c_str()) + symlink(full.c_str(), dir.Child("dir-link").c_str()) +
                symlink(dir.Child("no").c_str(), dir.Child("dangling").c_str()), 0);

  TimePoint before = CurrentTime();
  FileInformation info;
  ASSERT_TRUE(GetFileInformation(FilePath(link), &info));
  EXPECT_EQ(info.size, 5);
  EXPECT_FALSE(info.is_symbolic_link || info.is_directory);
  int64_t age = (before - info.creation_time).InMicroseconds();
  EXPECT_TRUE(age > -5'000'000 && age < 60'000'000) << age;
  // Written to four days later: the modification time moves, the birth time must not.
  struct timespec times[2] = {{0, UTIME_OMIT}, {time(nullptr) + 4 * 24 * 3600, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  FileInformation later;
  ASSERT_TRUE(GetFileInformation(FilePath(file), &later));
  EXPECT_EQ(later.creation_time, info.creation_time);
  EXPECT_GT(later.last_modified.ToInternalValue(), info.last_modified.ToInternalValue());
  // A file system that records no birth time (procfs) gives the oldest time that it records.
  ASSERT_TRUE(GetFileInformation(FilePath("/proc/self/stat"), &later) && !later.creation_time.is_null());
  ASSERT_TRUE(GetFileInformation(FilePath(full), &info) && info.is_directory);
  EXPECT_TRUE(PathExists(FilePath(link)));
  EXPECT_FALSE(PathExists(FilePath(dir.Child("dangling"))) || PathExists(FilePath()));
  info.size = 77;
  EXPECT_FALSE(GetFileInformation(FilePath(dir.Child("dangling")), &info) || GetFileInformation(FilePath(), &info));
  EXPECT_EQ(info.size, 77) << "a failed read leaves the record alone";

  EXPECT_FALSE(DoDeleteFile(FilePath(file + "/below-a-file"))) << "ENOTDIR is a failure";
  EXPECT_TRUE(DoDeleteFile(FilePath(link)) && DoDeleteFile(FilePath(dir.Child("dir-link"))));
  EXPECT_FALSE(FileExists(link));
  EXPECT_TRUE(FileExists(file)) << "the link's target stays";
  EXPECT_FALSE(DoDeleteFile(FilePath(full))) << "never recursive";
  EXPECT_TRUE(FileExists(full + "/inside"));
  EXPECT_TRUE(DoDeleteFile(FilePath(empty)) && DoDeleteFile(FilePath(file)));
  EXPECT_FALSE(FileExists(empty) || FileExists(file));
  EXPECT_TRUE(DoDeleteFile(FilePath(file)) && DoDeleteFile(FilePath())) << "already gone counts as deleted";
}

TEST(FileUtilTest, ReadTakesWholeFilesUpToTheBoundAndNeverWaits) {
  corvane_test::TempDir dir;
  ASSERT_TRUE(corvane_test::WriteFile(dir.Child("five"), "12345"));
  ASSERT_EQ(mkfifo(dir.Child("fifo").c_str(), 0600), 0);
  // Path, bound, what is read (nullopt: nothing, a failure).
  const std::vector<std::tuple<std::string, size_t, std::optional<std::string>>> cases = {
      {dir.Child("five"), 5, "12345"}, {dir.Child("five"), 4, std::nullopt}, {dir.path(), 99, std::nullopt},
      {dir.Child("missing"), 99, std::nullopt}, {"/dev/zero", 1 << 20, std::nullopt}, {dir.Child("fifo"), 9, ""},
  };
  for (const auto& [path, bound, expected] : cases) {
    std::string read = "untouched";
    bool ok = ReadFileToString(FilePath(path), &read, bound);
    EXPECT_EQ(ok ? std::optional(read) : std::nullopt, expected) << path << " " << bound;
    EXPECT_TRUE(ok || read == "untouched") << path;
  }
}

TEST(TimeTest, ConversionsSpansAndWholeHoursSaturate) {
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  EXPECT_TRUE(TimePoint::FromPosix(0, 0).is_null());
  EXPECT_EQ(TimePoint::FromPosix(0, 999999).ToInternalValue(), 999);
  EXPECT_EQ(TimePoint::FromPosix(-1, 0).ToInternalValue(), TimePoint::kUnixEpochOffset - 1000000);
  EXPECT_EQ(TimePoint::FromPosix(kMax, 0), TimePoint::Max());
  EXPECT_EQ(TimePoint::FromPosix(kMax / 1000, 0), TimePoint::Max()) << "the product saturates";
  EXPECT_EQ(TimePoint::FromPosix(kMax / 1000000 - 1, 0), TimePoint::Max()) << "the offset saturates";
  // The macOS clock: seconds since 2001 as a double.
  EXPECT_TRUE(TimePoint::FromAbsoluteTime(0).is_null());
  EXPECT_EQ(TimePoint::FromAbsoluteTime(1.5).ToInternalValue(), TimePoint::kUnixEpochOffset + 978307201500000);
  EXPECT_EQ(TimePoint::FromAbsoluteTime(1e300), TimePoint::Max());
  EXPECT_EQ(TimePoint::FromAbsoluteTime(9222393729654.775), TimePoint::Max()) << "2^63 microseconds since 1970";
  EXPECT_EQ(TimePoint::FromAbsoluteTime(-1e300), TimePoint::Min());

  EXPECT_EQ(TimePoint::Max() - TimePoint::FromInternalValue(-5), TimeSpan::Max());
  EXPECT_EQ(TimePoint::Min() - TimePoint::FromInternalValue(5), TimeSpan::Min());
  EXPECT_EQ(TimePoint::FromInternalValue(10) - TimePoint::FromInternalValue(25), TimeSpan::FromMicroseconds(-15));
  const std::vector<std::pair<TimeSpan, int32_t>> hours = {
      {TimeSpan::FromMicroseconds(349'199'999'999), 96}, {TimeSpan::FromMicroseconds(349'200'000'000), 97},
      {TimeSpan::FromMicroseconds(-3'600'000'000), -1},  {TimeSpan::FromMicroseconds(-3'599'999'999), 0},
      {TimeSpan::Max(), std::numeric_limits<int32_t>::max()}, {TimeSpan::Min(), std::numeric_limits<int32_t>::min()},
  };
  for (const auto& [span, whole] : hours) EXPECT_EQ(InWholeHours(span), whole) << span.InMicroseconds();
}

}  // namespace
}  // namespace base
