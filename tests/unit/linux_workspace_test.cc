// The Linux workspace against real files, real desktop entries and real
// processes: where application locations lead, how a browser is started,
// what it receives, and when the completion arrives.
#include "platform/linux/linux_workspace.h"

#include <glib.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/browser_record.h"
#include "tests/support/temp_dir.h"

namespace {

using corvane_test::BrowserRecord;
using corvane_test::FileExists;
using corvane_test::MakeDirectories;
using corvane_test::ReadBrowserRecords;
using corvane_test::TempDir;
using corvane_test::WaitForBrowserRecords;
using corvane_test::WriteFile;
using dispatcher::linux_shell::CaptureLaunchEnvironment;
using dispatcher::linux_shell::LaunchEnvironment;
using dispatcher::linux_shell::LinuxWorkspace;

std::string FileUrl(const std::string& path) {
  gchar* uri = g_filename_to_uri(path.c_str(), nullptr, nullptr);
  std::string result = uri ? uri : "";
  g_free(uri);
  return result;
}

// Sets or unsets a variable of this process for one scope.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const std::optional<std::string>& value) : name_(name) {
    if (const char* old = getenv(name)) old_ = old;
    if (value)
      setenv(name, value->c_str(), 1);
    else
      unsetenv(name);
  }
  ~ScopedVariable() {
    if (old_)
      setenv(name_, old_->c_str(), 1);
    else
      unsetenv(name_);
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

TEST(LinuxWorkspacePathTest, FileUrlsAndAbsolutePathsNameLocalPaths) {
  LinuxWorkspace workspace{LaunchEnvironment{}};
  struct Case {
    std::string location;
    std::optional<std::string> path;
  };
  const std::vector<Case> cases = {
      {"file:///usr/bin/browser", "/usr/bin/browser"},
      {"file:/usr/bin/browser", "/usr/bin/browser"},
      {"FILE:///usr/bin/browser", "/usr/bin/browser"},
      {"file://localhost/opt/browser", "/opt/browser"},
      {"file://LocalHost/opt/browser", "/opt/browser"},
      {"file:///opt/My%20Browser/run%25", "/opt/My Browser/run%"},
      {"file:///opt/%E2%82%AC/run", "/opt/\xE2\x82\xAC/run"},
      // A URL's path never includes its query or fragment.
      {"file:///opt/browser?profile=1", "/opt/browser"},
      {"file:///opt/browser#top", "/opt/browser"},
      {"file:///opt/%3Fodd%23name", "/opt/?odd#name"},
      // No scheme: an absolute path, spelled as a URL path.
      {"/usr/bin/browser", "/usr/bin/browser"},
      {"/opt/My%20Browser.desktop", "/opt/My Browser.desktop"},
      {"/opt/browser?profile=1", "/opt/browser"},
      {"//localhost/opt/browser", "/opt/browser"},
      {"file:///", "/"},
      // Not local, not a file, or not a path at all.
      {"file://server.example/opt/browser", std::nullopt},
      {"//server.example/opt/browser", std::nullopt},
      {"https://example.com/browser", std::nullopt},
      {"browser.desktop", std::nullopt},
      {"usr/bin/browser", std::nullopt},
      {"", std::nullopt},
      {"file://", std::nullopt},
      {"file:///opt/a%2Fb", std::nullopt},
      {"file:///opt/a%00b", std::nullopt},
  };
  for (const Case& c : cases) {
    std::optional<std::string> path = workspace.PathOfLocation(c.location);
    EXPECT_EQ(path, c.path) << "location: " << c.location;
  }
}

TEST(LinuxWorkspacePathTest, PathsSurviveTheRoundTripThroughFileUrls) {
  LinuxWorkspace workspace{LaunchEnvironment{}};
  const std::vector<std::string> paths = {
      "/opt/plain", "/opt/with blank/run", "/opt/100%/run", "/opt/hash#and?query",
      "/opt/\xC3\xBC\xE6\x97\xA5/run", "/opt/semi;colon&amp$(x)", "/opt/quote'\"/run",
  };
  for (const std::string& path : paths) {
    std::string url = FileUrl(path);
    ASSERT_FALSE(url.empty()) << path;
    EXPECT_EQ(workspace.PathOfLocation(url), std::optional<std::string>(path)) << url;
  }
}

TEST(LinuxWorkspaceEnvironmentTest, CapturesTokensAndTheOriginalVfsSetting) {
  {
    ScopedVariable token("XDG_ACTIVATION_TOKEN", "token-1");
    ScopedVariable startup("DESKTOP_STARTUP_ID", "startup-2");
    ScopedVariable vfs("GIO_USE_VFS", "gvfs");
    LaunchEnvironment environment = CaptureLaunchEnvironment();
    EXPECT_EQ(environment.xdg_activation_token, std::optional<std::string>("token-1"));
    EXPECT_EQ(environment.desktop_startup_id, std::optional<std::string>("startup-2"));
    EXPECT_EQ(environment.original_gio_use_vfs, std::optional<std::string>("gvfs"));
  }
  {
    ScopedVariable token("XDG_ACTIVATION_TOKEN", std::nullopt);
    ScopedVariable startup("DESKTOP_STARTUP_ID", std::nullopt);
    ScopedVariable vfs("GIO_USE_VFS", std::nullopt);
    LaunchEnvironment environment = CaptureLaunchEnvironment();
    EXPECT_FALSE(environment.xdg_activation_token);
    EXPECT_FALSE(environment.desktop_startup_id);
    EXPECT_FALSE(environment.original_gio_use_vfs);
  }
  LinuxWorkspace workspace{LaunchEnvironment{}};
  EXPECT_TRUE(workspace.CanOpenUrls());
}

// Launches real programs and desktop entries; records land in records_.
class LinuxWorkspaceLaunchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    records_ = dir_.Child("records");
    bin_ = dir_.Child("browsers dir");
    ASSERT_TRUE(MakeDirectories(records_));
    ASSERT_TRUE(MakeDirectories(bin_));
    browser_ = bin_ + "/other browser";
    ASSERT_EQ(symlink(CORVANE_RECORDER_BROWSER, browser_.c_str()), 0);
  }

  // Writes a desktop entry that runs `program` with %u.
  std::string WriteEntry(const std::string& file, const std::string& program,
                         const std::string& extra = "") {
    gchar* quoted = g_shell_quote(program.c_str());
    std::string path = dir_.Child(file);
    EXPECT_TRUE(WriteFile(path, std::string("[Desktop Entry]\nType=Application\nName=Recorder\nExec=") +
                                    quoted + " %u\n" + extra));
    g_free(quoted);
    return path;
  }

  struct Outcome {
    bool completed = false;
    bool succeeded = false;
    bool completed_inside_open = false;
  };

  // Opens and runs the default main context until the completion arrives.
  static Outcome Open(LinuxWorkspace& workspace, const std::string& url,
                      const std::optional<std::string>& application) {
    Outcome outcome;
    bool returned = false;
    workspace.OpenUrl(url, application, [&](bool succeeded) {
      outcome.completed_inside_open = !returned;
      outcome.completed = true;
      outcome.succeeded = succeeded;
    });
    returned = true;
    RunUntil([&] { return outcome.completed; });
    return outcome;
  }

  void ClearRecords() {
    corvane_test::RemoveTree(records_);
    ASSERT_TRUE(MakeDirectories(records_));
  }

  template <typename Condition>
  static bool RunUntil(Condition condition, double seconds = 10) {
    gint64 deadline = g_get_monotonic_time() + static_cast<gint64>(seconds * G_USEC_PER_SEC);
    while (!condition() && g_get_monotonic_time() < deadline) {
      if (!g_main_context_iteration(nullptr, FALSE)) g_usleep(2000);
    }
    return condition();
  }

  TempDir dir_;
  std::string records_;
  std::string bin_;
  std::string browser_;
  // The started browsers write where this says; no session bus, so that GIO
  // starts desktop entries itself.
  ScopedVariable recorder_dir_{"CORVANE_RECORDER_DIR", dir_.Child("records")};
  ScopedVariable bus_{"DBUS_SESSION_BUS_ADDRESS", "disabled:"};
};

TEST_F(LinuxWorkspaceLaunchTest, ProgramReceivesTheUrlAsItsOnlyArgumentByteForByte) {
  LinuxWorkspace workspace{LaunchEnvironment{}};
  const std::vector<std::string> urls = {
      "https://example.com/",
      "https://example.com/a b?x=1&y=2;z=$(touch " + dir_.Child("pwned") + ")'\"`id`",
      "https://example.com/%25%20%2F?q=%00#fragment",
      "https://\xE4\xBE\x8B\xE3\x81\x88.example/\xC3\xBC?q=\xE2\x82\xAC",
      "https://example.com/" + std::string(100 * 1024, 'a'),
  };
  for (const std::string& url : urls) {
    Outcome outcome = Open(workspace, url, FileUrl(browser_));
    EXPECT_TRUE(outcome.completed);
    EXPECT_TRUE(outcome.succeeded) << url.substr(0, 80);
    EXPECT_FALSE(outcome.completed_inside_open);
  }
  std::vector<BrowserRecord> records = WaitForBrowserRecords(records_, urls.size());
  ASSERT_EQ(records.size(), urls.size());
  std::vector<std::string> received;
  for (const BrowserRecord& record : records) {
    EXPECT_EQ(record.name, "other browser");
    ASSERT_EQ(record.args.size(), 1u);
    received.push_back(record.args[0]);
    // Nothing to read from, and none of our descriptors.
    EXPECT_EQ(record.stdin_target, "/dev/null");
    EXPECT_TRUE(record.fds.empty()) << record.fds[0];
  }
  std::sort(received.begin(), received.end());
  std::vector<std::string> expected = urls;
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(received, expected);
  EXPECT_FALSE(FileExists(dir_.Child("pwned")));
}

TEST_F(LinuxWorkspaceLaunchTest, WhatCannotBeExecutedFailsInsteadOfGoingToAShell) {
  LinuxWorkspace workspace{LaunchEnvironment{}};
  // Run by a shell, this would leave a marker behind.
  std::string marker = dir_.Child("ran-by-shell");
  std::string text = dir_.Child("notes.txt");
  ASSERT_TRUE(WriteFile(text, "touch '" + marker + "'\n", 0755));
  std::string not_executable = dir_.Child("not-executable");
  ASSERT_TRUE(WriteFile(not_executable, "#!/bin/sh\ntouch '" + marker + "'\n", 0644));
  std::string directory = dir_.Child("a directory");
  ASSERT_TRUE(MakeDirectories(directory));

  for (const std::string& path : {text, not_executable, directory, dir_.Child("missing")}) {
    Outcome outcome = Open(workspace, "https://example.com/", FileUrl(path));
    EXPECT_TRUE(outcome.completed) << path;
    EXPECT_FALSE(outcome.succeeded) << path;
    EXPECT_FALSE(outcome.completed_inside_open) << path;
  }
  g_usleep(200 * 1000);
  EXPECT_FALSE(FileExists(marker));
  EXPECT_TRUE(ReadBrowserRecords(records_).empty());
}

TEST_F(LinuxWorkspaceLaunchTest, LocationsThatNameNoLocalFileFailAsynchronously) {
  LinuxWorkspace workspace{LaunchEnvironment{}};
  const std::vector<std::optional<std::string>> applications = {
      std::nullopt, "", "https://example.com/browser", "file://server.example" + browser_,
      "relative/browser",
  };
  for (const auto& application : applications) {
    Outcome outcome = Open(workspace, "https://example.com/", application);
    EXPECT_TRUE(outcome.completed);
    EXPECT_FALSE(outcome.succeeded) << application.value_or("(none)");
    EXPECT_FALSE(outcome.completed_inside_open) << application.value_or("(none)");
  }
  EXPECT_TRUE(ReadBrowserRecords(records_).empty());
}

TEST_F(LinuxWorkspaceLaunchTest, DesktopEntryStartsItsProgramWithTheUrl) {
  LinuxWorkspace workspace{LaunchEnvironment{}};
  std::string entry = WriteEntry("recorder browser.desktop", browser_);
  const std::string url = "https://example.com/p a t h?q='1'&r=\"2\";$(id)#%25frag";
  Outcome outcome = Open(workspace, url, FileUrl(entry));
  EXPECT_TRUE(outcome.succeeded);
  EXPECT_FALSE(outcome.completed_inside_open);
  std::vector<BrowserRecord> records = WaitForBrowserRecords(records_, 1);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].name, "other browser");
  EXPECT_EQ(records[0].args, std::vector<std::string>{url});
  EXPECT_EQ(records[0].env["GIO_LAUNCHED_DESKTOP_FILE"], entry);
}

TEST_F(LinuxWorkspaceLaunchTest, DesktopEntryThatCannotRunFails) {
  LinuxWorkspace workspace{LaunchEnvironment{}};
  std::string gone_program = bin_ + "/gone";
  ASSERT_EQ(symlink(CORVANE_RECORDER_BROWSER, gone_program.c_str()), 0);
  std::string gone = WriteEntry("gone.desktop", gone_program);
  ASSERT_EQ(unlink(gone_program.c_str()), 0);
  std::string text_program = dir_.Child("text program");
  ASSERT_TRUE(WriteFile(text_program, "not a program\n", 0644));
  std::string not_executable = WriteEntry("not-executable.desktop", text_program);
  std::string garbage = dir_.Child("garbage.desktop");
  ASSERT_TRUE(WriteFile(garbage, "this is no desktop entry\n"));
  std::string folder = dir_.Child("folder.desktop");
  ASSERT_TRUE(MakeDirectories(folder));

  for (const std::string& entry : {gone, not_executable, garbage, folder, dir_.Child("missing.desktop")}) {
    Outcome outcome = Open(workspace, "https://example.com/", FileUrl(entry));
    EXPECT_TRUE(outcome.completed) << entry;
    EXPECT_FALSE(outcome.succeeded) << entry;
    EXPECT_FALSE(outcome.completed_inside_open) << entry;
  }
  EXPECT_TRUE(ReadBrowserRecords(records_).empty());
}

TEST_F(LinuxWorkspaceLaunchTest, BrowsersGetTheDeliveryTokensButNotOurOwnStartVariables) {
  // As if GIO had started us from an entry, with a token, and the shell had
  // then forced local URI handling on itself.
  ScopedVariable launched("GIO_LAUNCHED_DESKTOP_FILE", "/usr/share/applications/ours.desktop");
  ScopedVariable launched_pid("GIO_LAUNCHED_DESKTOP_FILE_PID", "4242");
  ScopedVariable token("XDG_ACTIVATION_TOKEN", "start-token");
  ScopedVariable startup("DESKTOP_STARTUP_ID", "start-id");
  ScopedVariable vfs("GIO_USE_VFS", std::nullopt);
  LaunchEnvironment start = CaptureLaunchEnvironment();
  setenv("GIO_USE_VFS", "local", 1);
  LinuxWorkspace workspace{start};
  std::string entry = WriteEntry("recorder.desktop", browser_);

  ASSERT_TRUE(Open(workspace, "https://example.com/direct", FileUrl(browser_)).succeeded);
  ASSERT_TRUE(Open(workspace, "https://example.com/entry", FileUrl(entry)).succeeded);
  std::vector<BrowserRecord> records = WaitForBrowserRecords(records_, 2);
  ASSERT_EQ(records.size(), 2u);
  for (BrowserRecord& record : records) {
    ASSERT_EQ(record.args.size(), 1u);
    bool by_entry = record.args[0] == "https://example.com/entry";
    EXPECT_EQ(record.env.count("GIO_USE_VFS"), 0u) << record.args[0];
    EXPECT_EQ(record.env["XDG_ACTIVATION_TOKEN"], "start-token");
    EXPECT_EQ(record.env["DESKTOP_STARTUP_ID"], "start-id");
    if (by_entry) {
      // GIO names the entry it started, and the process it became.
      EXPECT_EQ(record.env["GIO_LAUNCHED_DESKTOP_FILE"], entry);
      EXPECT_EQ(record.env["GIO_LAUNCHED_DESKTOP_FILE_PID"], std::to_string(record.pid));
    } else {
      EXPECT_EQ(record.env.count("GIO_LAUNCHED_DESKTOP_FILE"), 0u);
      EXPECT_EQ(record.env.count("GIO_LAUNCHED_DESKTOP_FILE_PID"), 0u);
    }
  }

  // A later delivery that came without tokens must not pass on the stale
  // ones from our start; one with a different VFS setting gets it back.
  ClearRecords();
  workspace.SetActivationTokens(std::nullopt, std::nullopt);
  ASSERT_TRUE(Open(workspace, "https://example.com/direct", FileUrl(browser_)).succeeded);
  ASSERT_TRUE(Open(workspace, "https://example.com/entry", FileUrl(entry)).succeeded);
  records = WaitForBrowserRecords(records_, 2);
  ASSERT_EQ(records.size(), 2u);
  for (BrowserRecord& record : records) {
    EXPECT_EQ(record.env.count("XDG_ACTIVATION_TOKEN"), 0u) << record.args[0];
    EXPECT_EQ(record.env.count("DESKTOP_STARTUP_ID"), 0u) << record.args[0];
  }

  ClearRecords();
  LaunchEnvironment with_vfs;
  with_vfs.original_gio_use_vfs = "gvfs";
  LinuxWorkspace vfs_workspace{with_vfs};
  vfs_workspace.SetActivationTokens("second-token", "second-id");
  ASSERT_TRUE(Open(vfs_workspace, "https://example.com/direct", FileUrl(browser_)).succeeded);
  ASSERT_TRUE(Open(vfs_workspace, "https://example.com/entry", FileUrl(entry)).succeeded);
  records = WaitForBrowserRecords(records_, 2);
  ASSERT_EQ(records.size(), 2u);
  for (BrowserRecord& record : records) {
    EXPECT_EQ(record.env["GIO_USE_VFS"], "gvfs") << record.args[0];
    EXPECT_EQ(record.env["XDG_ACTIVATION_TOKEN"], "second-token");
    EXPECT_EQ(record.env["DESKTOP_STARTUP_ID"], "second-id");
  }
}

TEST_F(LinuxWorkspaceLaunchTest, ARetryMayBeStartedFromInsideACompletion) {
  LinuxWorkspace workspace{LaunchEnvironment{}};
  std::vector<bool> results;
  workspace.OpenUrl("https://example.com/retry", FileUrl(dir_.Child("missing")), [&](bool first) {
    results.push_back(first);
    workspace.OpenUrl("https://example.com/retry", FileUrl(browser_),
                      [&](bool second) { results.push_back(second); });
  });
  EXPECT_TRUE(results.empty());
  EXPECT_TRUE(RunUntil([&] { return results.size() == 2; }));
  EXPECT_EQ(results, (std::vector<bool>{false, true}));
  std::vector<BrowserRecord> records = WaitForBrowserRecords(records_, 1);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].args, std::vector<std::string>{"https://example.com/retry"});
}

TEST_F(LinuxWorkspaceLaunchTest, StartedProgramsAreReapedOnceTheyExit) {
  LinuxWorkspace workspace{LaunchEnvironment{}};
  ASSERT_TRUE(Open(workspace, "https://example.com/", FileUrl(browser_)).succeeded);
  std::vector<BrowserRecord> records = WaitForBrowserRecords(records_, 1);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].ppid, getpid());
  // The recorder exits right after writing; as our child it stays a zombie
  // in /proc until it is reaped.
  std::string proc = "/proc/" + std::to_string(records[0].pid);
  EXPECT_TRUE(RunUntil([&] { return !FileExists(proc); }, 10)) << proc << " was never reaped";
}

}  // namespace
