// The real dispatcher binary opening URLs in real browsers: a recording
// stand-in browser started through a real desktop entry (the work browser)
// or directly as a program (the non-work browser), in a private home with
// its own desktop-entry folders and no session bus.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/browser_record.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

using corvane_test::BrowserRecord;
using corvane_test::FileExists;
using corvane_test::MakeDirectories;
using corvane_test::ProcessOptions;
using corvane_test::ProcessResult;
using corvane_test::ReadBrowserRecords;
using corvane_test::ReadFile;
using corvane_test::RunProcess;
using corvane_test::TempDir;
using corvane_test::WaitForBrowserRecords;
using corvane_test::WriteFile;

constexpr char kHosted[] = "It is a hosted app url. Launching url in work browser.";
constexpr char kNoBrowserSet[] = "No browser set for non-work URLs. Opening in work browser.";
constexpr char kNonWorkFound[] = "Selected non-work browser found, will launch url in non-work browser.";
constexpr char kNonWorkNotFound[] = "Selected non-work browser not found, will open url in work browser.";
constexpr char kFirstFailed[] = "Failed to launch URL, will try to launch URL again in work browser.";
constexpr char kLaunched[] = "Launched browser successfully.";
constexpr char kRetryFailed[] = "Failed to launch URL in work browser as well.";
constexpr char kTerminated[] = "Terminated Dispatcher Application.";

constexpr char kWorkUrl[] = "https://intra.corp.test/app/";
constexpr char kOtherUrl[] = "https://news.example/today?x=1";

// The stand-in browsers live in folders whose names neither a command line
// nor a URL may garble. (GIO refuses entries whose program path holds a
// "%", so those started through entries do without one.)
constexpr char kBrowsersFolder[] = "Browsers 100%";
constexpr char kEntryBrowsersFolder[] = "Entry Browsers";

bool IsLauncherMessage(const std::string& message) {
  static const std::set<std::string> kMessages = {kHosted,    kNoBrowserSet, kNonWorkFound, kNonWorkNotFound,
                                                  kFirstFailed, kLaunched,   kRetryFailed};
  return kMessages.count(message) != 0;
}

// "[MMDD/HHMMSS.uuuuuu:SEVERITY:file(line)] message": the message part of
// each line (parsed by hand: lines can be 100 kB long).
std::vector<std::string> Messages(const std::string& text) {
  std::vector<std::string> messages;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    size_t end = line.find(")] ");
    EXPECT_TRUE(line.rfind("[", 0) == 0 && end != std::string::npos) << "not a log line: " << line.substr(0, 200);
    if (end != std::string::npos) messages.push_back(line.substr(end + 3));
  }
  return messages;
}

std::vector<std::string> LauncherMessages(const std::string& text) {
  std::vector<std::string> result;
  for (const std::string& message : Messages(text)) {
    if (IsLauncherMessage(message)) result.push_back(message);
  }
  return result;
}

// A file URL for a path, every byte outside the unreserved set escaped.
std::string FileUrl(const std::string& path) {
  std::string url = "file://";
  for (unsigned char c : path) {
    if (isalnum(c) || c == '/' || c == '-' || c == '.' || c == '_' || c == '~') {
      url.push_back(static_cast<char>(c));
    } else {
      char escaped[4];
      snprintf(escaped, sizeof(escaped), "%%%02X", c);
      url += escaped;
    }
  }
  return url;
}

std::string JsonString(const std::string& text) {
  std::string json = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') json.push_back('\\');
    json.push_back(c);
  }
  return json + "\"";
}

// A program path as the Exec key of a desktop entry wants it: quoted, and
// with "%" doubled since it introduces field codes.
std::string ExecProgram(const std::string& path) {
  std::string quoted = "\"";
  for (char c : path) {
    if (c == '"' || c == '`' || c == '$') quoted += "\\\\";
    quoted.push_back(c);
    if (c == '%') quoted.push_back('%');
  }
  return quoted + "\"";
}

std::vector<std::string> Arguments(const std::vector<BrowserRecord>& records, const std::string& name) {
  std::vector<std::string> urls;
  for (const BrowserRecord& record : records) {
    if (record.name != name) continue;
    EXPECT_EQ(record.args.size(), 1u) << "one URL per start, as one argument";
    urls.insert(urls.end(), record.args.begin(), record.args.end());
  }
  std::sort(urls.begin(), urls.end());
  return urls;
}

class LauncherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    config_ = home_.Child(".config");
    data_ = home_.Child(".local/share");
    log_file_ = config_ + "/Halvard/Corvane/logs/CorvaneDispatcher_debug.log";
    records_ = home_.Child("records");
    browsers_ = home_.Child(kBrowsersFolder);
    entry_browsers_ = home_.Child(kEntryBrowsersFolder);
    work_entry_ = data_ + "/applications/com.velora.velorabrowser.desktop";
    ASSERT_TRUE(MakeDirectories(config_ + "/Halvard/Corvane/logs"));
    ASSERT_TRUE(MakeDirectories(data_ + "/applications"));
    ASSERT_TRUE(MakeDirectories(home_.Child("data-dirs")));
    ASSERT_TRUE(MakeDirectories(home_.Child("runtime")));
    ASSERT_TRUE(MakeDirectories(records_));
    ASSERT_TRUE(MakeDirectories(browsers_));
    ASSERT_TRUE(MakeDirectories(entry_browsers_));
    work_program_ = InstallBrowser("work browser", entry_browsers_);
    other_program_ = InstallBrowser("other browser", browsers_);
    other_entry_program_ = InstallBrowser("other browser", entry_browsers_);
    WriteWorkEntry(work_program_);
  }

  // A stand-in browser under `name`; its records carry that name.
  std::string InstallBrowser(const std::string& name, const std::string& folder) {
    std::string path = folder + "/" + name;
    EXPECT_EQ(symlink(CORVANE_RECORDER_BROWSER, path.c_str()), 0) << path;
    return path;
  }

  void WriteEntry(const std::string& path, const std::string& program) {
    ASSERT_TRUE(WriteFile(path, "[Desktop Entry]\nType=Application\nName=Browser\nExec=" +
                                    ExecProgram(program) + " %u\n"));
  }
  void WriteWorkEntry(const std::string& program) { WriteEntry(work_entry_, program); }

  // Policy: work URLs are those of corp.test; `non_work_location` is the
  // string stored for the non-work browser, nullopt for none.
  void WriteLocalState(const std::optional<std::string>& non_work_location) {
    std::string json = R"({"kel_prefs":{"policy":{"browser_urls":[{"patterns":["*.corp.test/*"]}]}})";
    if (non_work_location) json += R"(,"browser":{"browserPathForNonWorkLinks":)" + JsonString(*non_work_location) + "}";
    json += "}";
    ASSERT_TRUE(WriteFile(config_ + "/Halvard/Corvane/Local State", json));
  }

  ProcessOptions Options() const {
    ProcessOptions options;
    options.clear_environment = true;
    options.env = {{"HOME", home_.path()},
                   {"XDG_CONFIG_HOME", config_},
                   {"XDG_DATA_HOME", data_},
                   {"XDG_DATA_DIRS", home_.Child("data-dirs")},
                   {"XDG_RUNTIME_DIR", home_.Child("runtime")},
                   // Every process handles its own delivery.
                   {"DBUS_SESSION_BUS_ADDRESS", "disabled:"},
                   {"PATH", "/usr/local/bin:/usr/bin:/bin"},
                   {"LANG", "C.UTF-8"},
                   {"CORVANE_RECORDER_DIR", records_},
                   {"ASAN_OPTIONS", "verify_asan_link_order=0"}};
    options.timeout_seconds = 60;
    return options;
  }

  // Runs the dispatcher with `urls` and checks that it ended by itself.
  ProcessResult Dispatch(const std::vector<std::string>& urls, const ProcessOptions& options) {
    std::vector<std::string> argv = {CORVANE_DISPATCHER_BINARY};
    argv.insert(argv.end(), urls.begin(), urls.end());
    ProcessResult result = RunProcess(argv, options);
    EXPECT_TRUE(result.exited) << "timed out: " << result.timed_out << " signal: " << result.signal;
    EXPECT_EQ(result.exit_code, 0);
    std::vector<std::string> messages = Messages(ReadFile(log_file_));
    EXPECT_TRUE(!messages.empty() && messages.back() == kTerminated);
    return result;
  }
  ProcessResult Dispatch(const std::vector<std::string>& urls) { return Dispatch(urls, Options()); }

  // Waits for `count` records, then a moment more to see that no further
  // browser starts.
  std::vector<BrowserRecord> Records(size_t count) {
    WaitForBrowserRecords(records_, count);
    usleep(300 * 1000);
    return ReadBrowserRecords(records_);
  }

  void Reset() {
    corvane_test::RemoveTree(records_);
    ASSERT_TRUE(MakeDirectories(records_));
    ASSERT_TRUE(WriteFile(log_file_, "", 0600));
  }

  std::string Log() const { return ReadFile(log_file_); }

  TempDir home_;
  std::string config_, data_, log_file_, records_, browsers_, work_entry_;
  std::string entry_browsers_;
  std::string work_program_, other_program_, other_entry_program_;
};

TEST_F(LauncherTest, WorkUrlOpensInTheWorkBrowserWithoutTestingTheNonWorkBrowser) {
  // A non-work browser that is missing would log an ERROR if it were looked at.
  WriteLocalState(FileUrl(browsers_ + "/missing browser"));
  Dispatch({kWorkUrl});
  std::vector<BrowserRecord> records = Records(1);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].name, "work browser");
  EXPECT_EQ(records[0].args, std::vector<std::string>{kWorkUrl});
  EXPECT_EQ(LauncherMessages(Log()), (std::vector<std::string>{kHosted, kLaunched}));
}

TEST_F(LauncherTest, OtherUrlOpensInTheNonWorkProgramStartedDirectly) {
  WriteLocalState(FileUrl(other_program_));
  ProcessResult result = Dispatch({kOtherUrl});
  std::vector<BrowserRecord> records = Records(1);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].name, "other browser");
  EXPECT_EQ(records[0].args, std::vector<std::string>{kOtherUrl});
  // Nothing to read, and none of the dispatcher's descriptors (its log).
  EXPECT_EQ(records[0].stdin_target, "/dev/null");
  for (const std::string& fd : records[0].fds) EXPECT_EQ(fd.find("CorvaneDispatcher_debug.log"), std::string::npos);
  std::vector<std::string> expected = {kNonWorkFound, kLaunched};
  EXPECT_EQ(LauncherMessages(Log()), expected);
  EXPECT_EQ(LauncherMessages(result.err), expected) << "the same lines on standard error";
}

TEST_F(LauncherTest, NonWorkBrowserMayBeADesktopEntryAnywhere) {
  ASSERT_TRUE(MakeDirectories(home_.Child("My Apps")));
  std::string entry = home_.Child("My Apps/other browser.desktop");
  WriteEntry(entry, other_entry_program_);
  WriteLocalState(FileUrl(entry));
  Dispatch({kOtherUrl});
  std::vector<BrowserRecord> records = Records(1);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].name, "other browser");
  EXPECT_EQ(records[0].args, std::vector<std::string>{kOtherUrl});
  EXPECT_EQ(records[0].env["GIO_LAUNCHED_DESKTOP_FILE"], entry);
  EXPECT_EQ(LauncherMessages(Log()), (std::vector<std::string>{kNonWorkFound, kLaunched}));
}

TEST_F(LauncherTest, NonWorkBrowserGivenAsAPlainPathIsUsed) {
  // A location without scheme is the absolute path it spells.
  WriteLocalState(home_.path() + "/Browsers%20100%25/other%20browser");
  Dispatch({kOtherUrl});
  std::vector<BrowserRecord> records = Records(1);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].name, "other browser");
  EXPECT_EQ(LauncherMessages(Log()), (std::vector<std::string>{kNonWorkFound, kLaunched}));
}

TEST_F(LauncherTest, FallsBackToTheWorkBrowserWhenNoNonWorkBrowserCanBeChosen) {
  struct Case {
    const char* what;
    bool write_local_state;
    std::optional<std::string> non_work_location;
    std::vector<std::string> expected;
  };
  const std::vector<Case> cases = {
      // Without policy every URL is a work URL.
      {"no Local State", false, std::nullopt, {kHosted, kLaunched}},
      {"no non-work browser set", true, std::nullopt, {kNoBrowserSet, kLaunched}},
      {"non-work browser missing", true, FileUrl(browsers_ + "/missing browser"), {kNonWorkNotFound, kLaunched}},
      {"non-work browser on another host", true, "file://server.example" + FileUrl(other_program_).substr(strlen("file://")),
       {kNonWorkNotFound, kLaunched}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Reset();
    if (c.write_local_state) WriteLocalState(c.non_work_location);
    Dispatch({kOtherUrl});
    std::vector<BrowserRecord> records = Records(1);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].name, "work browser");
    EXPECT_EQ(records[0].args, std::vector<std::string>{kOtherUrl});
    EXPECT_EQ(LauncherMessages(Log()), c.expected);
  }
}

TEST_F(LauncherTest, NonWorkLocationThatCannotBeStartedIsRetriedInTheWorkBrowser) {
  // Run by a shell, the text file would leave this marker.
  std::string marker = home_.Child("ran-by-shell");
  std::string text = home_.Child("readme.txt");
  ASSERT_TRUE(WriteFile(text, "touch '" + marker + "'\n", 0755));
  std::string plain = home_.Child("plain file");
  ASSERT_TRUE(WriteFile(plain, "#!/bin/sh\ntouch '" + marker + "'\n", 0644));
  std::string folder = home_.Child("a folder");
  ASSERT_TRUE(MakeDirectories(folder));
  // An entry whose program was removed after it was configured.
  std::string removed_program = InstallBrowser("removed browser", entry_browsers_);
  std::string entry = home_.Child("removed.desktop");
  WriteEntry(entry, removed_program);
  ASSERT_EQ(unlink(removed_program.c_str()), 0);

  for (const std::string& location : {text, plain, folder, entry}) {
    SCOPED_TRACE(location);
    Reset();
    WriteLocalState(FileUrl(location));
    Dispatch({kOtherUrl});
    std::vector<BrowserRecord> records = Records(1);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].name, "work browser");
    EXPECT_EQ(records[0].args, std::vector<std::string>{kOtherUrl});
    // A retry that succeeds is silent.
    EXPECT_EQ(LauncherMessages(Log()), (std::vector<std::string>{kNonWorkFound, kFirstFailed}));
  }
  EXPECT_FALSE(FileExists(marker));
}

TEST_F(LauncherTest, WithoutAWorkingWorkBrowserBothAttemptsFailAndTheProcessStillEnds) {
  struct Case {
    const char* what;
    std::optional<std::string> non_work_location;
    std::string url;
    std::vector<std::string> expected;
  };
  const std::vector<Case> cases = {
      {"work URL", std::nullopt, kWorkUrl, {kHosted, kFirstFailed, kRetryFailed}},
      {"no non-work browser", std::nullopt, kOtherUrl, {kNoBrowserSet, kFirstFailed, kRetryFailed}},
      {"non-work browser not startable", FileUrl(home_.Child("Local State is no program")), kOtherUrl,
       {kNonWorkFound, kFirstFailed, kRetryFailed}},
  };
  ASSERT_TRUE(WriteFile(home_.Child("Local State is no program"), "{}", 0755));
  for (bool entry_present : {false, true}) {
    // The entry gone, or the entry left behind by a removed program.
    ASSERT_EQ(unlink(work_entry_.c_str()), 0);
    if (entry_present) {
      std::string removed = InstallBrowser("uninstalled work browser", entry_browsers_);
      WriteWorkEntry(removed);
      ASSERT_EQ(unlink(removed.c_str()), 0);
    }
    for (const Case& c : cases) {
      SCOPED_TRACE(std::string(c.what) + (entry_present ? ", entry left behind" : ", entry gone"));
      Reset();
      WriteLocalState(c.non_work_location);
      ProcessResult result = Dispatch({c.url});
      EXPECT_LT(result.seconds, 30);
      EXPECT_EQ(LauncherMessages(Log()), c.expected);
      EXPECT_TRUE(Records(0).empty());
    }
    if (!entry_present) WriteWorkEntry(work_program_);
  }
}

TEST_F(LauncherTest, EveryUrlOfOneDeliveryOpensExactlyOnceInItsBrowser) {
  WriteLocalState(FileUrl(other_program_));
  const std::vector<std::string> work = {"https://intra.corp.test/a", "https://mail.corp.test/b?c=d",
                                         "https://corp.test/"};
  const std::vector<std::string> other = {"https://news.example/1", "http://shop.example/2",
                                          "https://news.example/1#again"};
  std::vector<std::string> delivery = {work[0], other[0], work[1], other[1], work[2], other[2]};
  Dispatch(delivery);
  std::vector<BrowserRecord> records = Records(delivery.size());
  ASSERT_EQ(records.size(), delivery.size());
  std::vector<std::string> expected_work = work, expected_other = other;
  std::sort(expected_work.begin(), expected_work.end());
  std::sort(expected_other.begin(), expected_other.end());
  EXPECT_EQ(Arguments(records, "work browser"), expected_work);
  EXPECT_EQ(Arguments(records, "other browser"), expected_other);

  std::vector<std::string> messages = Messages(Log());
  std::string list = "Corvane Dispatcher received urls - [ ";
  for (size_t i = 0; i < delivery.size(); ++i) list += (i ? ", " : "") + delivery[i];
  EXPECT_EQ(std::count(messages.begin(), messages.end(), list + " ]"), 1);
  EXPECT_EQ(std::count(messages.begin(), messages.end(), kHosted), 3);
  EXPECT_EQ(std::count(messages.begin(), messages.end(), kNonWorkFound), 3);
  EXPECT_EQ(std::count(messages.begin(), messages.end(), kLaunched), 6);
}

TEST_F(LauncherTest, HostileUrlsArriveByteForByteAsOneArgument) {
  WriteLocalState(FileUrl(other_program_));
  std::string marker = home_.Child("pwned");
  std::vector<std::string> tails = {
      "a?b=1&c=2;d=3|e>f<g",
      "$(touch " + marker + ")`touch " + marker + "`${HOME}",
      "q='single'\"double\"\\back",
      "%25%20%2F%00%u%U%f%F%i%c%k%%",
      "a b\tc",
      "#fragment",
      "--new-window?-x",
      "\xC3\xBC\xE6\x97\xA5\xE6\x9C\xAC/\xF0\x9F\x98\x80",
      "not-utf-8/\xFF\xFE\xC3",
      std::string(100 * 1024, 'z'),
  };
  std::vector<std::string> work, other;
  for (const std::string& tail : tails) {
    work.push_back("https://intra.corp.test/" + tail);
    other.push_back("https://news.example/" + tail);
  }
  std::vector<std::string> delivery = work;
  delivery.insert(delivery.end(), other.begin(), other.end());
  Dispatch(delivery);
  std::vector<BrowserRecord> records = Records(delivery.size());
  ASSERT_EQ(records.size(), delivery.size());
  std::sort(work.begin(), work.end());
  std::sort(other.begin(), other.end());
  // Through the desktop entry's Exec line, and straight to the program.
  EXPECT_EQ(Arguments(records, "work browser"), work);
  EXPECT_EQ(Arguments(records, "other browser"), other);
  EXPECT_FALSE(FileExists(marker));
}

TEST_F(LauncherTest, BrowsersGetTheActivationTokenButNotOurOwnStartVariables) {
  WriteLocalState(FileUrl(other_program_));
  ProcessOptions options = Options();
  // As if started by GIO from our own entry, with a token to pass on.
  options.env["GIO_LAUNCHED_DESKTOP_FILE"] = "/usr/share/applications/com.halvard.corvane.dispatcher.desktop";
  options.env["GIO_LAUNCHED_DESKTOP_FILE_PID"] = "4242";
  options.env["XDG_ACTIVATION_TOKEN"] = "activation-token-1";
  options.env["DESKTOP_STARTUP_ID"] = "startup-id-2";
  Dispatch({kWorkUrl, kOtherUrl}, options);
  std::vector<BrowserRecord> records = Records(2);
  ASSERT_EQ(records.size(), 2u);
  for (BrowserRecord& record : records) {
    SCOPED_TRACE(record.name);
    EXPECT_EQ(record.env["XDG_ACTIVATION_TOKEN"], "activation-token-1");
    EXPECT_EQ(record.env["DESKTOP_STARTUP_ID"], "startup-id-2");
    // The dispatcher keeps URI handling local for itself only.
    EXPECT_EQ(record.env.count("GIO_USE_VFS"), 0u);
    if (record.name == "work browser") {
      // GIO names the entry it started and the process that became.
      EXPECT_EQ(record.env["GIO_LAUNCHED_DESKTOP_FILE"], work_entry_);
      EXPECT_EQ(record.env["GIO_LAUNCHED_DESKTOP_FILE_PID"], std::to_string(record.pid));
    } else {
      EXPECT_EQ(record.env.count("GIO_LAUNCHED_DESKTOP_FILE"), 0u);
      EXPECT_EQ(record.env.count("GIO_LAUNCHED_DESKTOP_FILE_PID"), 0u);
    }
  }

  // A VFS choice of the user's own reaches the browsers unchanged; without
  // a token none is invented.
  Reset();
  options = Options();
  options.env["GIO_USE_VFS"] = "gvfs";
  Dispatch({kWorkUrl, kOtherUrl}, options);
  records = Records(2);
  ASSERT_EQ(records.size(), 2u);
  for (BrowserRecord& record : records) {
    SCOPED_TRACE(record.name);
    EXPECT_EQ(record.env["GIO_USE_VFS"], "gvfs");
    EXPECT_EQ(record.env.count("XDG_ACTIVATION_TOKEN"), 0u);
    EXPECT_EQ(record.env.count("DESKTOP_STARTUP_ID"), 0u);
  }
}

TEST_F(LauncherTest, BrowserThatExitsAtOnceLeavesNoZombieBehind) {
  WriteLocalState(FileUrl(other_program_));
  ProcessResult result;
  std::atomic<bool> finished{false};
  std::thread dispatcher([&] {
    result = Dispatch({kOtherUrl});
    finished = true;
  });
  std::vector<BrowserRecord> records = WaitForBrowserRecords(records_, 1);
  ASSERT_EQ(records.size(), 1u);
  const BrowserRecord& browser = records[0];
  std::string dispatcher_comm = ReadFile("/proc/" + std::to_string(browser.ppid) + "/comm");
  EXPECT_EQ(dispatcher_comm.rfind("corvane-dispatc", 0), 0u) << "started by the dispatcher itself";

  // The recorder ends right after writing; until it is reaped, /proc keeps
  // it. The dispatcher lives two seconds past the launch, so a second is
  // ample and the dispatcher is still there to be the one that reaped it.
  std::string proc = "/proc/" + std::to_string(browser.pid);
  bool reaped = false;
  for (int i = 0; i < 100 && !reaped; ++i) {
    reaped = !FileExists(proc);
    if (!reaped) usleep(10 * 1000);
  }
  EXPECT_FALSE(finished) << "the check ran too late to tell";
  EXPECT_TRUE(reaped) << proc << " is still there while the dispatcher runs";
  dispatcher.join();
  EXPECT_EQ(LauncherMessages(Log()), (std::vector<std::string>{kNonWorkFound, kLaunched}));
}

}  // namespace
