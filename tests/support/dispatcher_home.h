// The real dispatcher in a private home, for the tests of the real binary: the recording stand-in browser is the work
// browser (by its desktop entry) and the non-work browser (by a location that needs escapes).
#ifndef TESTS_SUPPORT_DISPATCHER_HOME_H_
#define TESTS_SUPPORT_DISPATCHER_HOME_H_

#include <unistd.h>

#include <algorithm>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/browser_record.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace corvane_test {

inline constexpr char kBanner[] = "--------------------Corvane Dispatcher Initialized.-----------------------";
inline constexpr char kHosted[] = "It is a hosted app url. Launching url in work browser.";
inline constexpr char kNoneSet[] = "No browser set for non-work URLs. Opening in work browser.";
inline constexpr char kFound[] = "Selected non-work browser found, will launch url in non-work browser.";
inline constexpr char kNotFound[] = "Selected non-work browser not found, will open url in work browser.";
inline constexpr char kFirstFailed[] = "Failed to launch URL, will try to launch URL again in work browser.";
inline constexpr char kLaunched[] = "Launched browser successfully.";
inline constexpr char kRetryFailed[] = "Failed to launch URL in work browser as well.";
inline constexpr char kIsDispatcher[] = "Selected non-work browser is the dispatcher itself and would start it again.";
inline constexpr char kLoop[] =
    "Started by a dispatcher's browser launch moments ago: not routing again, opening url in work browser.";
inline constexpr char kWorkLoop[] =
    "Started by a dispatcher's work browser launch for a loop: the work browser runs the dispatcher as well.";
inline constexpr char kTerminated[] = "Terminated Dispatcher Application.";
inline constexpr char kWorkUrl[] = "https://intra.corp.test/app/", kOtherUrl[] = "https://news.example/today?x=1";

// The messages of "[MMDD/HHMMSS.uuuuuu:SEVERITY:file(line)] message" lines; only the launcher's, if `launcher`.
inline Strings Messages(const std::string& text, bool launcher = false) {
  const std::set<std::string> kLauncher = {kHosted,     kNoneSet,      kFound,        kNotFound, kFirstFailed,
                                           kLaunched,   kRetryFailed, kIsDispatcher, kLoop,     kWorkLoop};
  Strings messages;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    std::string message = line.substr(std::min(line.find(")] ") + 3, line.size()));
    if (!launcher || kLauncher.count(message)) messages.push_back(message);
  }
  return messages;
}

inline size_t Count(const Strings& messages, const std::string& message) {
  return static_cast<size_t>(std::count(messages.begin(), messages.end(), message));
}

class DispatcherHome : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* folder : {".config/Halvard/Corvane/logs", "data/applications", "records", "B 100%", "Entry"})
      ASSERT_TRUE(MakeDirectories(Home(folder)));
    // The program's folder needs escapes in a URL; GIO refuses a "%" in the program path of an entry.
    for (const char* browser : {"B 100%/other browser", "Entry/work browser", "Entry/other browser"})
      ASSERT_EQ(symlink(CORVANE_RECORDER_BROWSER, Home(browser).c_str()), 0);
    for (std::string name : {"work browser", "other browser", "removed browser"}) {
      std::string entry = name == "work browser" ? work_entry_ : Home(name + ".desktop");
      ASSERT_TRUE(WriteFile(entry, "[Desktop Entry]\nType=Application\nExec=\"" + Home("Entry/" + name) + "\" %u\n"));
    }
  }

  std::string Home(const std::string& relative) const { return home_.Child(relative); }

  // Work URLs are those of corp.test; "$HOME" in the non-work browser's location stands for the home folder.
  std::string LocalState(std::string non_work) const {
    std::string json = R"({"kel_prefs":{"policy":{"browser_urls":[{"patterns":["*.corp.test/*"]}]}})";
    if (size_t at = non_work.find("$HOME"); at != std::string::npos) non_work.replace(at, 5, home_.path());
    if (!non_work.empty()) json += R"(,"browser":{"browserPathForNonWorkLinks":")" + non_work + "\"}";
    return json + "}";
  }
  void WriteLocalState(const std::string& non_work) { ASSERT_TRUE(WriteFile(local_state_, LocalState(non_work))); }

  ProcessOptions Options(int64_t clock_ahead_seconds = 0) const {
    ProcessOptions options;
    options.clear_environment = true;  // and no session bus: every process handles its own delivery
    options.env = {{"HOME", home_.path()}, {"XDG_DATA_DIRS", Home("data")}, {"PATH", "/usr/bin:/bin"},
                   {"CORVANE_RECORDER_DIR", Home("records")}, {"DBUS_SESSION_BUS_ADDRESS", "disabled:"},
                   {"LD_PRELOAD", clock_ahead_seconds ? CORVANE_FAKE_CLOCK_LIBRARY : ""},
                   {"CORVANE_FAKE_CLOCK_OFFSET_SECONDS", std::to_string(clock_ahead_seconds)},
                   {"GIO_USE_VFS", "gvfs"}};  // the user's own choice, which browsers get unchanged
    return options;
  }

  // Runs the dispatcher, which must end by itself, successfully.
  ProcessResult Run(const Strings& urls, const ProcessOptions& options, Strings argv = {}) {
    argv.push_back(CORVANE_DISPATCHER_BINARY);
    argv.insert(argv.end(), urls.begin(), urls.end());
    ProcessResult result = RunProcess(argv, options);
    EXPECT_TRUE(result.exited && result.exit_code == 0) << result.signal << result.err.substr(0, 2000);
    EXPECT_TRUE(result.err.ends_with(std::string(kTerminated) + "\n")) << result.err.substr(0, 2000);
    return result;
  }

  // Waits for `count` records, and takes them away; the dispatcher has ended, so no more come.
  std::vector<BrowserRecord> Records(size_t count) {
    std::vector<BrowserRecord> records = WaitForBrowserRecords(Home("records"), count);
    RemoveTree(Home("records"));
    EXPECT_TRUE(MakeDirectories(Home("records")));
    return records;
  }

  // "browser: url" for each argument of each start.
  Strings Received(size_t count) {
    Strings got;
    for (auto& r : Records(count))
      for (auto& a : r.args) got.push_back(r.name + ": " + a);
    std::sort(got.begin(), got.end());
    return got;
  }

  TempDir home_;
  std::string work_entry_ = Home("data/applications/com.velora.velorabrowser.desktop");
  std::string local_state_ = Home(".config/Halvard/Corvane/Local State");
  std::string log_file_ = Home(".config/Halvard/Corvane/logs/CorvaneDispatcher_debug.log");
};

}  // namespace corvane_test

#endif  // TESTS_SUPPORT_DISPATCHER_HOME_H_
