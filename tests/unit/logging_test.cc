// The logging facility. What reaches standard error or the file, and the facility's initial state, are seen from
// child processes (death-test style).
#include "base/logging.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/log_capture.h"

// This program's system log: the priorities the facility sent, in place of the C library's syslog.
std::string g_system_log;
extern "C" void syslog(int priority, const char*, ...) { g_system_log += std::to_string(priority) + " "; }

namespace {

using corvane_test::Line;

// A value whose output logs a line of its own, while the line it is part of is composed.
struct Noisy {};
std::ostream& operator<<(std::ostream& out, Noisy) {
  LOG(INFO) << "inner";
  return out << "v";
}

// The frame of the statement that ends the process: a crash handler looks below it for the crash line.
const char* g_dying_frame = nullptr;
__attribute__((no_sanitize("address"))) void FindCrashLineOnTheStack(int signal_number) {
  static const char kLine[] = "] the end\n";
  char here = 0;
  for (const char* p = &here; p + sizeof(kLine) < g_dying_frame; ++p) {
    size_t same = 0;
    while (same + 1 < sizeof(kLine) && p[same] == kLine[same]) ++same;
    if (same + 1 == sizeof(kLine) && write(STDERR_FILENO, "on the stack\n", 13)) break;
  }
  signal(signal_number, SIG_DFL);  // the trap runs again, and ends the process
}

TEST(LoggingTest, LinesCarryLocalTimeSeverityAndBaseNameLevelsFilterAndErrnoIsTheCallers) {
  corvane_test::LogCapture log;
  // A zone in which it is five o'clock now, so that the hour's padding shows.
  time_t now = time(nullptr);
  struct tm utc;
  gmtime_r(&now, &utc);
  std::string saved = getenv("TZ") ? getenv("TZ") : "";
  LOG(INFO) << "the same second in the zone before";
  log.Clear();
  setenv("TZ", ("ZZZ" + std::to_string((utc.tm_hour - 5 + 36) % 24 - 12)).c_str(), 1);  // west-positive
  tzset();
  char stamp[16];
  strftime(stamp, sizeof(stamp), "%m%d/05", localtime_r(&now, &utc));
  const std::tuple<const char*, int, int, const char*> cases[] = {
      {__FILE__, 67, logging::LOG_INFO, "INFO:logging_test.cc(67)"}, {"a/b\\c.txt", 3, 1, "WARNING:c.txt(3)"},
      {"plain.mm", 1234, 2, "ERROR:plain.mm(1234)"}, {"dir/", 5, 4, "UNKNOWN:(5)"}, {"f", 0, 100, "UNKNOWN:f(0)"},
      {"f", -7, -1, "VERBOSE1:f(-7)"}, {"f", 1, -12, "VERBOSE12:f(1)"}, {"f", 2, -12, "VERBOSE12:f(2)"},
      {"f", 2, 1, "WARNING:f(2)"}};
  for (const auto& [file, line, severity, rest] : cases)
    logging::LogMessage(file, line, severity).stream() << "m " << 42;
  saved.empty() ? unsetenv("TZ") : setenv("TZ", saved.c_str(), 1);
  tzset();
  std::vector<Line> lines = log.lines();
  ASSERT_EQ(lines.size(), std::size(cases));
  for (size_t i = 0; i < lines.size(); ++i) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(lines[i].full, m, std::regex(R"(\[(\d{4}/\d\d)\d{4}\.\d{6}:([^\n]*)\] m 42\n)")));
    EXPECT_EQ(m[1].str() + " " + m[2].str(), stamp + (" " + std::string(std::get<3>(cases[i])))) << lines[i].full;
  }

  // Lines logged while a line is composed take streams of their own and leave it whole.
  log.Clear();
  LOG(ERROR) << "outer " << Noisy() << Noisy() << " end";
  EXPECT_EQ(log.lines(), (std::vector<Line>{{0, "inner"}, {0, "inner"}, {2, "outer vv end"}}));

  log.Clear();
  int evaluated = 0;
  errno = EACCES;
  VLOG(1) << "errno " << errno << ", " << ++evaluated;  // a statement starts with errno cleared
  EXPECT_EQ(errno, EACCES);
  VLOG(2) << ++evaluated;
  logging::SetMinimumLogLevel(7);
  EXPECT_EQ(logging::GetMinimumLogLevel(), logging::LOG_FATAL);
  LOG(ERROR) << ++evaluated;
  EXPECT_EQ(evaluated, 1) << "a message is not even composed below the minimum level";
  EXPECT_EQ(log.lines(), (std::vector<Line>{{-1, "errno 0, 1"}}));
}

TEST(LoggingProcessTest, InitialStateDestinationsTheLogFilesLifeCycleAndFaults) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process, on the facility's initial values
  EXPECT_EXIT({ LOG(INFO) << "info"; LOG(WARNING) << "warning"; exit(0); }, ::testing::ExitedWithCode(0),
              "^\\[[0-9/.]+:WARNING:logging_test.cc\\([0-9]+\\)\\] warning\n$");

  // From here on each child is forked where its statements run, so that their standard error is what is seen.
  GTEST_FLAG_SET(death_test_style, "fast");
  logging::SetMinimumLogLevel(-1);  // inherited by the children
  corvane_test::TempDir dir;
  std::string folder = dir.Child("missing"), late = folder + "/late.log";
  EXPECT_EXIT(
      {
        // Without the file bit nothing touches the file system, not even the default file.
        if (chdir(dir.path().c_str()) != 0) exit(4);
        for (logging::LoggingDestination destinations : {logging::LOG_NONE, logging::kLogToStderr}) {
          if (!logging::InitializeLogging({destinations, ""})) exit(3);
          LOG(INFO) << "info without file";
          LOG(ERROR) << "error without file";
        }
        // File only: errors go to standard error as well. A file that can't be opened yet is skipped until its
        // folder appears.
        if (logging::InitializeLogging({logging::kLogToFile, late.c_str()})) exit(3);
        LOG(ERROR) << "error while missing";
        if (!corvane_test::MakeDirectories(folder)) exit(4);
        LOG(INFO) << "after created";
        _exit(0);  // skips the leak check of a heap inherited from the parent
      },
      ::testing::ExitedWithCode(0),
      "^[^\n]*:ERROR:[^\n]*\\] error without file\n[^\n]*:INFO:[^\n]*\\] info without file\n"
      "[^\n]*\\] error without file\n[^\n]*\\] error while missing\n$");
  EXPECT_FALSE(corvane_test::FileExists(dir.Child("debug.log")));
  auto messages = [](const std::string& file) {
    return std::regex_replace(corvane_test::ReadFile(file), std::regex("\\[[^\n]*\\] "), "");
  };
  EXPECT_EQ(messages(late), "after created\n");

  // A standard error that is a pipe gets each line once; a closed one ends neither the process nor the file's lines.
  std::string path = dir.Child("test.log");
  EXPECT_EXIT(
      {
        signal(SIGPIPE, SIG_DFL);
        int ends[2];
        int saved = dup(STDERR_FILENO);
        char piped[256] = {};
        if (pipe2(ends, O_NONBLOCK) != 0 || dup2(ends[1], STDERR_FILENO) < 0) _exit(4);
        close(ends[1]);
        logging::InitializeLogging({logging::kLogToFile | logging::kLogToStderr, path.c_str()});
        LOG(ERROR) << "into a pipe";
        ssize_t got = std::max(read(ends[0], piped, sizeof(piped)), ssize_t{0});
        std::replace(piped, piped + got, '\0', '@');  // what follows a NUL counts as well
        (void)!write(saved, piped, static_cast<size_t>(got));
        close(ends[0]);
        LOG(ERROR) << "into a closed pipe";
        LOG(INFO) << "still here";
        _exit(0);  // a SIGPIPE left pending would have struck when unblocked
      },
      ::testing::ExitedWithCode(0), "^\\[[^\n]*\\] into a pipe\n$");
  EXPECT_EQ(messages(path), "into a pipe\ninto a closed pipe\nstill here\n");

  // Lines reach the system log, at its priorities, only while standard error leads nowhere: not to a file nor to
  // another device.
  const int kSeverities[] = {-1, 0, 1, 2, 5};
  for (const auto& [target, priorities] : {std::pair("", ""), {"/dev/zero", ""}, {"/dev/null", "7 6 5 3 5 "}}) {
    EXPECT_EXIT(
        {
          int saved = dup(STDERR_FILENO);
          int fd = *target ? open(target, O_WRONLY) : saved;
          if (fd < 0 || dup2(fd, STDERR_FILENO) < 0) _exit(4);
          logging::InitializeLogging(logging::LogSettings());
          for (int severity : kSeverities) logging::LogMessage("f", 1, severity).stream() << "s";
          dprintf(saved, "system log: %s.", g_system_log.c_str());
          _exit(0);
        },
        ::testing::ExitedWithCode(0), std::string("system log: ") + priorities + "\\.$");
  }

  // The crash line stays on the stack, for a crash dump.
  EXPECT_DEATH(
      {
        char frame = 0;
        g_dying_frame = &frame;
        signal(SIGILL, FindCrashLineOnTheStack);
        signal(SIGTRAP, FindCrashLineOnTheStack);
        logging::InitializeLogging({logging::kLogToFile | logging::kLogToStderr, path.c_str()});
        LOG(FATAL) << "the end";
      },
      ":FATAL:logging_test.cc\\([0-9]+\\)\\] the end\non the stack\n");
  EXPECT_NE(corvane_test::ReadFile(path).find(":FATAL:logging_test.cc("), std::string::npos);
  EXPECT_DEATH(logging::InitializeLogging({logging::kLogToFile, nullptr}), "assertion .* failed");
}

}  // namespace
