// What the tests of the dispatcher binary cannot reach cheaply: where locations lead, which desktop file is the work
// browser's, how fresh a launch's mark must be, completions that never arrive inside OpenUrl, and browsers that must
// not linger as zombies.
#include "platform/linux/linux_workspace.h"

#include <glib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "dispatcher/url.h"
#include "gtest/gtest.h"
#include "platform/linux/loop_guard.h"
#include "tests/support/browser_record.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

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
      {"file:///opt/%C3", none, none}, {"file:///a%2", none, none}, {"file:///%ED%A0%80", none, none},
      {"file:///%F4%8F%BF%BF", "/\xF4\x8F\xBF\xBF", "/\xF4\x8F\xBF\xBF"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(UrlPath(c.location), c.path) << c.location;
    EXPECT_EQ(LinuxWorkspace::StartablePath(c.location), c.startable) << c.location;
  }
}

// The work browser's desktop file is the one GIO's own lookup by id gives, over the layouts of data folders that decide
// it: which folder masks which, files GIO skips, hidden entries, folders it cannot list.
TEST(LinuxWorkspaceTest, WorkBrowserEntryIsTheOneGioFindsByItsId) {
  const std::string id = dispatcher::linux_shell::kWorkBrowserDesktopId;
  const std::string entry = "[Desktop Entry]\nType=Application\nName=W\n";
  const std::string good = entry + "Exec=sh -c 'exec true' %u\n";
  struct Case {
    const char* name;
    std::vector<std::pair<std::string, std::string>> files;  // path below the root, contents ("->x": link to x)
    std::string expected;                                     // path below the root, or "-"
    bool data_home = true;                                    // XDG_DATA_HOME=user, else the default below HOME
    bool unprivileged = false;
  };
  const std::string user = "user/applications/" + id, sys1 = "sys1/applications/" + id,
                    sys2 = "sys2/applications/" + id;
  const std::vector<Case> cases = {
      {"only in a system folder", {{sys2, good}}, sys2},
      {"the user's folder masks the system's", {{user, good}, {sys1, good}}, user},
      {"the first system folder masks the next", {{sys1, good}, {sys2, good}}, sys1},
      {"a hidden entry masks the next folders", {{user, good + "Hidden=true\n"}, {sys1, good}}, "-"},
      {"a Hidden value that is no boolean is not hidden", {{user, good + "Hidden=maybe\n"}, {sys1, good}}, user},
      {"TryExec not found: skipped", {{user, good + "TryExec=/nonexistent/b\n"}, {sys1, good}}, sys1},
      {"TryExec found", {{user, good + "TryExec=sh\n"}, {sys1, good}}, user},
      {"Exec program not found: skipped", {{user, entry + "Exec=/nonexistent/b %u\n"}, {sys1, good}}, sys1},
      {"Exec not parsable: skipped", {{user, entry + "Exec=\"sh %u\n"}, {sys1, good}}, sys1},
      {"no Exec (D-Bus activation) loads", {{user, entry + "DBusActivatable=true\n"}, {sys1, good}}, user},
      {"not an application: skipped", {{user, "[Desktop Entry]\nType=Link\nURL=x\n"}, {sys1, good}}, sys1},
      {"another group first: skipped", {{user, "[Desktop Action a]\nName=A\n\n" + good}, {sys1, good}}, sys1},
      {"no key file: skipped", {{user, "Exec=sh\n"}, {sys1, good}}, sys1},
      {"a folder of that name: skipped", {{user + "/x", good}, {sys1, good}}, sys1},
      {"a dangling link: skipped", {{user, "->/nonexistent/entry"}, {sys1, good}}, sys1},
      {"a link to an entry: the link", {{"elsewhere.desktop", good}, {user, "->../../elsewhere.desktop"}}, user},
      {"a subfolder gives another id", {{"user/applications/com/velora.velorabrowser.desktop", good}}, "-"},
      {"no data home: below HOME", {{"home/.local/share/applications/" + id, good}, {sys1, good}},
       "home/.local/share/applications/" + id, false},
      {"nowhere", {{"sys1/applications/other.desktop", good}}, "-"},
      {"a folder that cannot be listed is not seen", {{user, good}, {sys1, good}}, sys1, true, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    corvane_test::TempDir dir;
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    for (const auto& [path, contents] : c.files) {
      std::string full = dir.Child(path);
      ASSERT_TRUE(corvane_test::MakeDirectories(full.substr(0, full.rfind('/'))));
      if (contents.starts_with("->")) {
        ASSERT_EQ(symlink(contents.c_str() + 2, full.c_str()), 0);
      } else {
        ASSERT_TRUE(corvane_test::WriteFile(full, contents));
      }
    }
    if (c.unprivileged) {
      ASSERT_EQ(chmod(dir.Child("user/applications").c_str(), 0311), 0);
    }
    corvane_test::ProcessOptions options;
    options.clear_environment = true;
    options.env = {{"HOME", dir.Child("home")}, {"PATH", "/usr/bin:/bin"},
                   {"XDG_DATA_DIRS", dir.Child("sys1") + ":" + dir.Child("sys2")}};
    if (c.data_home) options.env["XDG_DATA_HOME"] = dir.Child("user");
    corvane_test::Strings argv = c.unprivileged ? corvane_test::AsUnprivilegedUser() : corvane_test::Strings{};
    argv.insert(argv.end(), {CORVANE_DESKTOP_FILE_PROBE, id});
    corvane_test::ProcessResult probe = corvane_test::RunProcess(argv, options);
    ASSERT_TRUE(probe.exited && probe.exit_code == 0) << probe.err;
    std::string expected = c.expected == "-" ? "-" : dir.Child(c.expected);
    EXPECT_EQ(probe.out, expected + "\n" + expected + "\n") << "GIO's answer first, then ours";
  }
}

// The mark of a dispatcher's launch counts only while it is fresh and its dispatcher (here: this test program, which
// stands in for one) still runs: the process of that id and start time. Any other mark is a later, legitimate delivery.
TEST(LinuxWorkspaceTest, LaunchMarksCountWhileFreshAndTheirDispatcherRuns) {
  struct timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  long long ms = now.tv_sec * 1000LL + now.tv_nsec / 1000000;
  unsigned long long started = 0;  // this process's start, as its own mark gives it
  ASSERT_EQ(sscanf(LaunchMarkerNow(0).c_str(), "%*d %llu", &started), 1);
  auto mark = [&](long long pid, long long at, const std::string& depth, unsigned long long start_offset = 0) {
    return std::to_string(pid) + " " + std::to_string(started + start_offset) + " " + std::to_string(at) + " " + depth;
  };
  const std::vector<std::pair<std::optional<std::string>, int>> cases = {
      {LaunchMarkerNow(0), 1}, {LaunchMarkerNow(1), 2}, {LaunchMarkerNow(99), 9}, {mark(getpid(), ms - 9000, "1"), 1},
      {mark(getpid(), ms - 11000, "1"), 0}, {mark(getpid(), ms + 2000, "1"), 0},  // stale, or from the future
      // Gone: another process has its id now, or none has.
      {mark(getpid(), ms, "1", 1), 0}, {mark(1, ms, "1"), 0}, {mark(999999999, ms, "1"), 0},
      {std::nullopt, 0}, {"", 0}, {mark(getpid(), ms, "0"), 0}, {mark(getpid(), ms, "1 x"), 0}, {"1 2 3", 0},
  };
  for (const auto& [marker, depth] : cases) EXPECT_EQ(LaunchLoopDepth(marker), depth) << marker.value_or("(none)");

  // A dispatcher that has ended is gone before its parent reaps it.
  int pipe_fds[2];
  ASSERT_EQ(pipe(pipe_fds), 0);
  pid_t child = fork();
  if (child == 0) {
    std::string own = LaunchMarkerNow(0);
    _exit(write(pipe_fds[1], own.data(), own.size()) == static_cast<ssize_t>(own.size()) ? 0 : 1);
  }
  char own[128] = {};
  close(pipe_fds[1]);
  EXPECT_GT(read(pipe_fds[0], own, sizeof(own) - 1), 0);
  close(pipe_fds[0]);
  siginfo_t ended;
  ASSERT_EQ(waitid(P_PID, child, &ended, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(LaunchLoopDepth(std::string(own)), 0) << own;
  waitpid(child, nullptr, 0);
}

template <typename Condition>
bool RunMainLoopUntil(Condition condition) {
  for (gint64 end = g_get_monotonic_time() + 10 * G_USEC_PER_SEC; !condition() && g_get_monotonic_time() < end;) {
    if (!g_main_context_iteration(nullptr, FALSE)) g_usleep(2000);
  }
  return condition();
}

TEST(LinuxWorkspaceLaunchTest, CompletionsArriveBeforeOpenUrlReturnsAndStartedBrowsersAreReaped) {
  corvane_test::TempDir dir;
  // Only what this test starts reads these: no session bus, so that GIO starts entries itself.
  setenv("DBUS_SESSION_BUS_ADDRESS", "disabled:", 1);
  setenv("CORVANE_RECORDER_DIR", dir.path().c_str(), 1);
  ASSERT_TRUE(corvane_test::WriteFile(dir.Child("true.desktop"), "[Desktop Entry]\nType=Application\nExec=true %u\n"));
  ASSERT_TRUE(corvane_test::WriteFile(dir.Child("garbage.desktop"), "this is no desktop entry\n"));
  ASSERT_TRUE(corvane_test::WriteFile(dir.Child("recorder.desktop"), "[Desktop Entry]\nType=Application\nExec=" +
                                                                         std::string(CORVANE_RECORDER_BROWSER) + " %u\n"));
  const std::vector<std::pair<std::optional<std::string>, bool>> cases = {
      {std::string("file://") + CORVANE_RECORDER_BROWSER, true}, {"file://" + dir.Child("true.desktop"), true},
      {"file://" + dir.Child("recorder.desktop"), true},
      {std::nullopt, false}, {"file://" + dir.path(), false}, {"file://" + dir.Child("garbage.desktop"), false},
  };
  LinuxWorkspace workspace{LaunchEnvironment{}};
  for (const auto& [application, succeeds] : cases) {
    SCOPED_TRACE(application.value_or("(none)"));
    std::optional<bool> result;
    workspace.OpenUrl("https://example.com/", application, [&](auto o) { result = o == Workspace::Outcome::kStarted; });
    // So a URL counts as handed to its browser before the next one is launched.
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(*result, succeeds);
  }
  // The stand-in exits at once; as our child, started directly or from its entry, it stays in /proc until reaped.
  std::vector<corvane_test::BrowserRecord> records = corvane_test::WaitForBrowserRecords(dir.path(), 2);
  ASSERT_EQ(records.size(), 2u);
  for (const corvane_test::BrowserRecord& record : records) {
    EXPECT_EQ(record.args, std::vector<std::string>{"https://example.com/"});
    EXPECT_TRUE(RunMainLoopUntil([&] { return !corvane_test::FileExists("/proc/" + std::to_string(record.pid)); }));
  }

  // A retry started from inside a completion, as the delegate does.
  std::vector<bool> results;
  workspace.OpenUrl("https://example.com/", "file://" + dir.Child("missing"), [&](auto first) {
    results.push_back(first == Workspace::Outcome::kStarted);
    workspace.OpenUrl("https://example.com/", "file:///bin/true", [&](auto second) {
      results.push_back(second == Workspace::Outcome::kStarted);
    });
  });
  EXPECT_EQ(results, (std::vector<bool>{false, true}));
}

}  // namespace
}  // namespace dispatcher::linux_shell
