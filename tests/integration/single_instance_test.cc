// A second delivery while the dispatcher runs reaches the running instance
// over the session bus, and is handled in full.
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

using corvane_test::MakeDirectories;
using corvane_test::ReadFile;
using corvane_test::RunProcess;
using corvane_test::TempDir;
using corvane_test::WriteFile;

int CountOf(const std::string& text, const std::string& needle) {
  int n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

TEST(SingleInstanceTest, SecondDeliveryIsHandledByTheRunningDispatcher) {
  if (access("/usr/bin/dbus-run-session", X_OK) != 0) GTEST_SKIP() << "needs dbus-run-session";
  TempDir home;
  std::string config = home.Child(".config");
  std::string logs = config + "/Halvard/Corvane/logs";
  ASSERT_TRUE(MakeDirectories(logs));
  ASSERT_TRUE(MakeDirectories(home.Child(".local/share/applications")));
  ASSERT_TRUE(MakeDirectories(home.Child("data-dirs")));
  std::string opened = home.Child("opened.txt");
  // The work browser: appends what it is asked to open.
  ASSERT_TRUE(WriteFile(home.Child("work-browser"),
                        "#!/bin/sh\nprintf '%s\\n' \"$1\" >> '" + opened + "'\n", 0755));
  ASSERT_TRUE(WriteFile(home.Child(".local/share/applications/com.velora.velorabrowser.desktop"),
                        "[Desktop Entry]\nType=Application\nName=Work\nExec=" + home.Child("work-browser") +
                            " %u\n"));

  // The first dispatcher is still waiting out its shutdown when the second
  // one starts.
  std::string script =
      "\"$DISPATCHER\" https://first.example/ 2>first.err & first=$!\n"
      "sleep 1\n"
      "\"$DISPATCHER\" https://second.example/ 2>second.err; echo \"second=$?\"\n"
      "wait $first; echo \"first=$?\"\n";
  corvane_test::ProcessOptions options;
  options.clear_environment = true;
  options.working_directory = home.path();
  options.env = {{"HOME", home.path()},
                 {"XDG_CONFIG_HOME", config},
                 {"XDG_DATA_HOME", home.Child(".local/share")},
                 {"XDG_DATA_DIRS", home.Child("data-dirs")},
                 {"PATH", "/usr/bin:/bin"},
                 {"DISPATCHER", CORVANE_DISPATCHER_BINARY}};
  options.timeout_seconds = 60;
  corvane_test::ProcessResult result =
      RunProcess({"/usr/bin/dbus-run-session", "--", "/bin/sh", "-c", script}, options);
  ASSERT_TRUE(result.exited) << result.err;
  EXPECT_NE(result.out.find("second=0"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("first=0"), std::string::npos) << result.out;

  std::string log = ReadFile(logs + "/CorvaneDispatcher_debug.log");
  EXPECT_EQ(CountOf(log, "Dispatcher Application is launching."), 1) << log;
  EXPECT_EQ(CountOf(log, "received urls - [ https://first.example/ ]"), 1) << log;
  EXPECT_EQ(CountOf(log, "received urls - [ https://second.example/ ]"), 1) << log;
  EXPECT_EQ(CountOf(log, "Terminated Dispatcher Application."), 1) << log;
  EXPECT_EQ(CountOf(log, "Launched browser successfully."), 2) << log;

  std::string urls = ReadFile(opened);
  EXPECT_EQ(CountOf(urls, "https://first.example/\n"), 1) << urls;
  EXPECT_EQ(CountOf(urls, "https://second.example/\n"), 1) << urls;
}

}  // namespace
