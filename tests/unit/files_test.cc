// Paths, files and time: the operations start-up uses to find its log file
// and decide when it has expired.
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <limits>

#include "base/files/file_path.h"
#include "base/files/file_util.h"
#include "base/files/path_service.h"
#include "base/files/time.h"
#include "gtest/gtest.h"
#include "tests/support/temp_dir.h"

namespace {

using base::AppendPath;
using base::FilePath;
using base::TimePoint;
using base::TimeSpan;
using corvane_test::TempDir;
using corvane_test::WriteFile;

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();

TEST(AppendPathTest, JoinsWithOneSeparator) {
  EXPECT_EQ(AppendPath(FilePath("/home/u/.config"), "Halvard/x.log").value(), "/home/u/.config/Halvard/x.log");
  EXPECT_EQ(AppendPath(FilePath("/a//"), "b").value(), "/a/b");
  EXPECT_EQ(AppendPath(FilePath("/"), "b").value(), "/b");
  EXPECT_EQ(AppendPath(FilePath(""), "b").value(), "b");
  EXPECT_EQ(AppendPath(FilePath("."), "b").value(), "b");
  EXPECT_EQ(AppendPath(FilePath("."), "").value(), ".");
  EXPECT_EQ(AppendPath(FilePath("/a/"), "").value(), "/a");
  EXPECT_EQ(AppendPath(FilePath("a"), "../b/./c").value(), "a/../b/./c");
  EXPECT_EQ(AppendPath(FilePath("a"), std::string_view("b\0c", 3)).value(), "a/b");
}

TEST(FileUtilTest, EmptyPathNamesNoFile) {
  base::FileInformation info;
  info.size = 77;
  EXPECT_FALSE(base::PathExists(FilePath()));
  EXPECT_FALSE(base::GetFileInformation(FilePath(), &info));
  EXPECT_EQ(info.size, 77) << "a failed read leaves the record alone";
  EXPECT_TRUE(base::DoDeleteFile(FilePath())) << "no such file counts as deleted";
}

TEST(FileUtilTest, InformationFollowsLinksAndReportsCreationTime) {
  TempDir dir;
  std::string target = dir.Child("target");
  ASSERT_TRUE(WriteFile(target, "12345"));
  std::string link = dir.Child("link");
  ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
  ASSERT_EQ(symlink(dir.Child("nowhere").c_str(), dir.Child("dangling").c_str()), 0);

  TimePoint before = base::CurrentTime();
  base::FileInformation info;
  ASSERT_TRUE(base::GetFileInformation(FilePath(link), &info));
  EXPECT_EQ(info.size, 5);
  EXPECT_FALSE(info.is_symbolic_link);
  EXPECT_FALSE(info.is_directory);
  // Created a moment ago (file systems round to their own granularity).
  int64_t age = (before - info.creation_time).InMicroseconds();
  EXPECT_GE(age, -5'000'000);
  EXPECT_LT(age, 60'000'000);
  EXPECT_LE(info.creation_time.ToInternalValue(), info.last_modified.ToInternalValue() + 1);

  ASSERT_TRUE(base::GetFileInformation(FilePath(dir.path()), &info));
  EXPECT_TRUE(info.is_directory);

  EXPECT_TRUE(base::PathExists(FilePath(link)));
  EXPECT_FALSE(base::PathExists(FilePath(dir.Child("dangling"))));
  EXPECT_FALSE(base::GetFileInformation(FilePath(dir.Child("dangling")), &info));
}

TEST(FileUtilTest, CreationTimeStaysWhenTheFileIsWrittenAgain) {
  TempDir dir;
  std::string path = dir.Child("log");
  ASSERT_TRUE(WriteFile(path, "a"));
  base::FileInformation first;
  ASSERT_TRUE(base::GetFileInformation(FilePath(path), &first));
  // Move the modification time four days ahead: the birth time must not follow.
  struct timespec times[2];
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = time(nullptr) + 4 * 24 * 3600;
  times[1].tv_nsec = 0;
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  base::FileInformation second;
  ASSERT_TRUE(base::GetFileInformation(FilePath(path), &second));
  EXPECT_EQ(second.creation_time, first.creation_time);
  EXPECT_GT(second.last_modified.ToInternalValue(), first.last_modified.ToInternalValue());
}

TEST(FileUtilTest, DeleteRemovesOneFileLinkOrEmptyDirectory) {
  TempDir dir;
  std::string file = dir.Child("file");
  ASSERT_TRUE(WriteFile(file, "x"));
  std::string link = dir.Child("link");
  ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);
  std::string full = dir.Child("full");
  ASSERT_TRUE(corvane_test::MakeDirectories(full));
  ASSERT_TRUE(WriteFile(full + "/inside", "y"));
  std::string empty = dir.Child("empty");
  ASSERT_TRUE(corvane_test::MakeDirectories(empty));
  std::string dir_link = dir.Child("dir-link");
  ASSERT_EQ(symlink(full.c_str(), dir_link.c_str()), 0);

  EXPECT_FALSE(base::DoDeleteFile(FilePath(file + "/below-a-file"))) << "ENOTDIR is a failure";

  EXPECT_TRUE(base::DoDeleteFile(FilePath(link)));
  EXPECT_FALSE(corvane_test::FileExists(link));
  EXPECT_TRUE(corvane_test::FileExists(file)) << "the link's target stays";

  EXPECT_TRUE(base::DoDeleteFile(FilePath(dir_link)));
  EXPECT_TRUE(corvane_test::FileExists(full + "/inside")) << "never recursive through a link";

  EXPECT_FALSE(base::DoDeleteFile(FilePath(full))) << "never recursive";
  EXPECT_TRUE(corvane_test::FileExists(full + "/inside"));

  EXPECT_TRUE(base::DoDeleteFile(FilePath(empty)));
  EXPECT_FALSE(corvane_test::FileExists(empty));
  EXPECT_TRUE(base::DoDeleteFile(FilePath(file)));
  EXPECT_TRUE(base::DoDeleteFile(FilePath(file))) << "already gone counts as deleted";
  EXPECT_TRUE(base::DoDeleteFile(FilePath(dir.Child("never/there"))));
}

TEST(FileUtilTest, ReadFileTellsFilesFromDirectories) {
  TempDir dir;
  std::string path = dir.Child("data");
  std::string data(200000, 'q');
  data[1234] = '\0';
  ASSERT_TRUE(WriteFile(path, data));
  std::string read;
  ASSERT_TRUE(base::ReadFileToString(FilePath(path), &read));
  EXPECT_EQ(read, data);
  ASSERT_TRUE(WriteFile(path, ""));
  EXPECT_TRUE(base::ReadFileToString(FilePath(path), &read));
  EXPECT_TRUE(read.empty());
  EXPECT_FALSE(base::ReadFileToString(FilePath(dir.path()), &read));
  EXPECT_FALSE(base::ReadFileToString(FilePath(dir.Child("missing")), &read));
}

TEST(TimeTest, PosixConversion) {
  EXPECT_TRUE(TimePoint::FromPosix(0, 0).is_null());
  EXPECT_EQ(TimePoint::FromPosix(0, 999999).ToInternalValue(), 999);
  EXPECT_EQ(TimePoint::FromPosix(1, 0).ToInternalValue(), TimePoint::kUnixEpochOffset + 1000000);
  EXPECT_EQ(TimePoint::FromPosix(-1, 0).ToInternalValue(), TimePoint::kUnixEpochOffset - 1000000);
  EXPECT_EQ(TimePoint::FromPosix(kMax, 0), TimePoint::Max());
  EXPECT_EQ(TimePoint::FromPosix(kMax / 1000, 0), TimePoint::Max()) << "the product saturates";
  EXPECT_EQ(TimePoint::FromPosix(kMin / 1000, 0), TimePoint::Min());
  EXPECT_EQ(TimePoint::FromPosix(kMax / 1000000 - 1, 0), TimePoint::Max()) << "the offset saturates";
}

TEST(TimeTest, AbsoluteTimeConversion) {
  EXPECT_TRUE(TimePoint::FromAbsoluteTime(0).is_null());
  EXPECT_EQ(TimePoint::FromAbsoluteTime(std::numeric_limits<double>::infinity()), TimePoint::Max());
  EXPECT_EQ(TimePoint::FromAbsoluteTime(-std::numeric_limits<double>::infinity()), TimePoint::Min());
  EXPECT_EQ(TimePoint::FromAbsoluteTime(1.5).ToInternalValue(),
            TimePoint::kUnixEpochOffset + (978307200LL * 1000000) + 1500000);
  EXPECT_EQ(TimePoint::FromAbsoluteTime(1e300), TimePoint::Max());
}

TEST(TimeTest, SpansSaturateAtBothEnds) {
  TimePoint negative = TimePoint::FromInternalValue(-5);
  EXPECT_EQ(TimePoint::Max() - negative, TimeSpan::Max());
  EXPECT_EQ(TimePoint::Min() - TimePoint::FromInternalValue(5), TimeSpan::Min());
  EXPECT_EQ(TimePoint::FromInternalValue(10) - TimePoint::FromInternalValue(25), TimeSpan::FromMicroseconds(-15));
  EXPECT_EQ(TimePoint::Max() + TimeSpan::FromMicroseconds(-1), TimePoint::Max()) << "infinity stays";
  EXPECT_EQ(TimePoint::FromInternalValue(kMax - 1) + TimeSpan::FromMicroseconds(10), TimePoint::Max());
  EXPECT_EQ(TimePoint::FromInternalValue(kMin + 1) - TimeSpan::FromMicroseconds(10), TimePoint::Min());
}

TEST(TimeTest, WholeHoursTruncateTowardZeroAndClamp) {
  EXPECT_EQ(base::InWholeHours(TimeSpan::FromMicroseconds(349'199'999'999)), 96);
  EXPECT_EQ(base::InWholeHours(TimeSpan::FromMicroseconds(349'200'000'000)), 97);
  EXPECT_EQ(base::InWholeHours(TimeSpan::FromMicroseconds(-3'600'000'000)), -1);
  EXPECT_EQ(base::InWholeHours(TimeSpan::FromMicroseconds(-3'599'999'999)), 0);
  EXPECT_EQ(base::InWholeHours(TimeSpan::FromMicroseconds(-1)), 0);
  EXPECT_EQ(base::InWholeHours(TimeSpan::Max()), std::numeric_limits<int32_t>::max());
  EXPECT_EQ(base::InWholeHours(TimeSpan::Min()), std::numeric_limits<int32_t>::min());
}

TimePoint FixedClock() { return TimePoint::FromInternalValue(123456789); }

TEST(TimeTest, ClockHookReplacesTheWallClock) {
  TimePoint real = base::CurrentTime();
  EXPECT_GT(real.ToInternalValue(), TimePoint::kUnixEpochOffset);
  base::SetClockHook(&FixedClock);
  EXPECT_EQ(base::CurrentTime().ToInternalValue(), 123456789);
  base::SetClockHook(nullptr);
  EXPECT_GE(base::CurrentTime().ToInternalValue(), real.ToInternalValue());
}

// The lookup remembers its answer for the process, so each case runs in a
// child of its own.
class AppDataLookupTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  static void ExpectLookup(const char* xdg, const char* home, const std::string& expected) {
    EXPECT_EXIT(
        {
          if (xdg) setenv("XDG_CONFIG_HOME", xdg, 1); else unsetenv("XDG_CONFIG_HOME");
          if (home) setenv("HOME", home, 1); else unsetenv("HOME");
          FilePath path;
          if (!base::LookupPath(base::DIR_APP_DATA, &path)) exit(2);
          setenv("XDG_CONFIG_HOME", "/changed", 1);
          FilePath again;
          if (!base::LookupPath(base::DIR_APP_DATA, &again) || !(again == path)) exit(3);
          exit(path.value() == expected ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
  }
};

TEST_F(AppDataLookupTest, XdgConfigHomeWhenAbsoluteElseHomeConfig) {
  ExpectLookup("/x/config", "/home/u", "/x/config");
  ExpectLookup("relative/config", "/home/u", "/home/u/.config");
  ExpectLookup("", "/home/u", "/home/u/.config");
  ExpectLookup(nullptr, "/home/u", "/home/u/.config");
}

TEST_F(AppDataLookupTest, ParentReferencesAreResolved) {
  TempDir dir;
  ASSERT_TRUE(corvane_test::MakeDirectories(dir.Child("a/b")));
  char resolved[PATH_MAX];
  ASSERT_NE(realpath(dir.path().c_str(), resolved), nullptr);
  ExpectLookup((dir.Child("a/b/../..")).c_str(), "/home/u", resolved);
  // Unresolvable: the lookup fails.
  EXPECT_EXIT(
      {
        setenv("XDG_CONFIG_HOME", "/no/such/dir/../x", 1);
        FilePath path;
        exit(base::LookupPath(base::DIR_APP_DATA, &path) ? 1 : 0);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(AppDataLookupTest, OnlyTheApplicationDataKeyIsKnown) {
  FilePath path("unchanged");
  EXPECT_FALSE(base::LookupPath(42, &path));
  EXPECT_EQ(path.value(), "unchanged");
}

}  // namespace
