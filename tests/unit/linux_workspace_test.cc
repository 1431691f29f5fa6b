// What the tests of the dispatcher binary cannot reach cheaply: where locations lead, how fresh a launch's mark must
// be, completions that never arrive inside OpenUrl, and browsers that must not linger as zombies.
#include "platform/linux/linux_workspace.h"

#include <glib.h>
#include <time.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "dispatcher/url.h"
#include "gtest/gtest.h"
#include "platform/linux/loop_guard.h"
#include "tests/support/browser_record.h"

namespace dispatcher::linux_shell {
namespace {

// The path that the existence test looks at, whatever the URL, and the one this workspace can start: local files only.
TEST(LinuxWorkspaceTest, LocationsGiveTheirPathAndOnlyLocalFilesCanBeStarted) {
  const std::optional<std::string> none;
  struct Case {
    std::string location;
    std::optional<std::string> path, startable;
  };
  const std::vector<Case> cases = {
      {"file:///usr/bin/browser", "/usr/bin/browser", "/usr/bin/browser"},
      {"file:/usr/bin/browser", "/usr/bin/browser", "/usr/bin/browser"},
      {"FILE://LocalHost/opt/browser", "/opt/browser", "/opt/browser"},
      {"file:///opt/My%20Browser/run%25", "/opt/My Browser/run%", "/opt/My Browser/run%"},
      {"file:///opt/%E2%82%AC/a;b&$(x)'q", "/opt/\xE2\x82\xAC/a;b&$(x)'q", "/opt/\xE2\x82\xAC/a;b&$(x)'q"},
      // A URL's path never includes its query or fragment, nor a trailing "/".
      {"file:///opt/browser?profile=1#top", "/opt/browser", "/opt/browser"},
      {"file:///opt/%3Fodd%23name/", "/opt/?odd#name", "/opt/?odd#name"}, {"file:///", "/", "/"}, {"file://", "", none},
      // Without a scheme: the reference is its own absolute form.
      {"/opt/My%20Browser.desktop", "/opt/My Browser.desktop", "/opt/My Browser.desktop"},
      {"//localhost/opt/browser", "/opt/browser", "/opt/browser"}, {"browser.desktop", "browser.desktop", none},
      // Any scheme and host has a path; only local files can be started.
      {"https://example.com/usr/bin/browser", "/usr/bin/browser", none},
      {"file://server.example/opt/browser", "/opt/browser", none},
      // No path at all: opaque URLs and escapes that spell no file name.
      {"mailto:someone@example.com", none, none}, {"file:///opt/a%00b", none, none}, {"file:///opt/%FF", none, none},
      {"file:///opt/%C3", none, none}, {"file:///a%2", none, none},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(UrlPath(c.location), c.path) << c.location;
    EXPECT_EQ(LinuxWorkspace::StartablePath(c.location), c.startable) << c.location;
  }
}

// The mark of a dispatcher's launch counts only while it is fresh and its dispatcher (here: this test program, which
// stands in for one) still runs; any other mark is a later, legitimate delivery.
TEST(LinuxWorkspaceTest, LaunchMarksCountWhileFreshAndTheirDispatcherRuns) {
  struct timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  long long ms = now.tv_sec * 1000LL + now.tv_nsec / 1000000;
  auto mark = [](long long pid, long long at, const std::string& depth) {
    return std::to_string(pid) + " " + std::to_string(at) + " " + depth;
  };
  const std::vector<std::pair<std::optional<std::string>, int>> cases = {
      {LaunchMarkerNow(0), 1}, {LaunchMarkerNow(1), 2}, {LaunchMarkerNow(99), 9}, {mark(getpid(), ms - 9000, "1"), 1},
      {mark(getpid(), ms - 11000, "1"), 0}, {mark(getpid(), ms + 2000, "1"), 0},  // stale, or from the future
      {mark(getppid(), ms, "1"), 0}, {mark(1, ms, "1"), 0}, {mark(999999999, ms, "1"), 0},  // not a dispatcher
      {std::nullopt, 0}, {"", 0}, {mark(getpid(), ms, "0"), 0}, {mark(getpid(), ms, "1 x"), 0}, {"1 2", 0},
  };
  for (const auto& [marker, depth] : cases) EXPECT_EQ(LaunchLoopDepth(marker), depth) << marker.value_or("(none)");
}

template <typename Condition>
bool RunMainLoopUntil(Condition condition) {
  for (gint64 end = g_get_monotonic_time() + 10 * G_USEC_PER_SEC; !condition() && g_get_monotonic_time() < end;) {
    if (!g_main_context_iteration(nullptr, FALSE)) g_usleep(2000);
  }
  return condition();
}

TEST(LinuxWorkspaceLaunchTest, CompletionsArriveFromTheMainLoopAndStartedBrowsersAreReaped) {
  corvane_test::TempDir dir;
  // Only what this test starts reads these: no session bus, so that GIO starts entries itself.
  setenv("DBUS_SESSION_BUS_ADDRESS", "disabled:", 1);
  setenv("CORVANE_RECORDER_DIR", dir.path().c_str(), 1);
  ASSERT_TRUE(corvane_test::WriteFile(dir.Child("true.desktop"), "[Desktop Entry]\nType=Application\nExec=true %u\n"));
  ASSERT_TRUE(corvane_test::WriteFile(dir.Child("garbage.desktop"), "this is no desktop entry\n"));
  const std::vector<std::pair<std::optional<std::string>, bool>> cases = {
      {std::string("file://") + CORVANE_RECORDER_BROWSER, true}, {"file://" + dir.Child("true.desktop"), true},
      {std::nullopt, false}, {"file://" + dir.path(), false}, {"file://" + dir.Child("garbage.desktop"), false},
  };
  LinuxWorkspace workspace{LaunchEnvironment{}};
  for (const auto& [application, succeeds] : cases) {
    SCOPED_TRACE(application.value_or("(none)"));
    std::optional<bool> result;
    workspace.OpenUrl("https://example.com/", application, [&](bool succeeded) { result = succeeded; });
    EXPECT_FALSE(result);
    ASSERT_TRUE(RunMainLoopUntil([&] { return result.has_value(); }));
    EXPECT_EQ(*result, succeeds);
  }
  // The stand-in exits at once; as our child it stays in /proc until reaped.
  std::vector<corvane_test::BrowserRecord> records = corvane_test::WaitForBrowserRecords(dir.path(), 1);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_TRUE(RunMainLoopUntil([&] { return !corvane_test::FileExists("/proc/" + std::to_string(records[0].pid)); }));

  // A retry started from inside a completion, as the delegate does.
  std::vector<bool> results;
  workspace.OpenUrl("https://example.com/", "file://" + dir.Child("missing"), [&](bool first) {
    results.push_back(first);
    workspace.OpenUrl("https://example.com/", "file:///bin/true", [&](bool second) { results.push_back(second); });
  });
  EXPECT_TRUE(RunMainLoopUntil([&] { return results.size() == 2; }));
  EXPECT_EQ(results, (std::vector<bool>{false, true}));
}

}  // namespace
}  // namespace dispatcher::linux_shell
