// The real dispatcher in a private home; the recording stand-in browser is the work and the non-work browser.
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>

#include "gtest/gtest.h"
#include "tests/support/browser_record.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace corvane_test {
namespace {

constexpr char kBanner[] = "--------------------Corvane Dispatcher Initialized.-----------------------";
constexpr char kHosted[] = "It is a hosted app url. Launching url in work browser.";
constexpr char kNoneSet[] = "No browser set for non-work URLs. Opening in work browser.";
constexpr char kFound[] = "Selected non-work browser found, will launch url in non-work browser.";
constexpr char kNotFound[] = "Selected non-work browser not found, will open url in work browser.";
constexpr char kFirstFailed[] = "Failed to launch URL, will try to launch URL again in work browser.";
constexpr char kLaunched[] = "Launched browser successfully.";
constexpr char kRetryFailed[] = "Failed to launch URL in work browser as well.";
constexpr char kWorkUrl[] = "https://intra.corp.test/app/", kOtherUrl[] = "https://news.example/today?x=1";

// The messages of "[MMDD/HHMMSS.uuuuuu:SEVERITY:file(line)] message" lines; only the launcher's, if `launcher`.
Strings Messages(const std::string& text, bool launcher = false) {
  const std::set<std::string> kLauncher = {kHosted, kNoneSet, kFound, kNotFound, kFirstFailed, kLaunched, kRetryFailed};
  Strings messages;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    std::string message = line.substr(std::min(line.find(")] ") + 3, line.size()));
    if (!launcher || kLauncher.count(message)) messages.push_back(message);
  }
  return messages;
}

class DispatcherTest : public ::testing::Test {
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
    ASSERT_TRUE(WriteFile(Home("readme.txt"), "touch '" + Home("ran") + "'\n", 0755));  // if a shell ran it
  }

  std::string Home(const std::string& relative) const { return home_.Child(relative); }

  // Work URLs are those of corp.test; "$HOME" in the non-work browser's location stands for the home folder.
  void WriteLocalState(std::string non_work) {
    std::string json = R"({"kel_prefs":{"policy":{"browser_urls":[{"patterns":["*.corp.test/*"]}]}})";
    if (size_t at = non_work.find("$HOME"); at != std::string::npos) non_work.replace(at, 5, home_.path());
    if (!non_work.empty()) json += R"(,"browser":{"browserPathForNonWorkLinks":")" + non_work + "\"}";
    ASSERT_TRUE(WriteFile(Home(".config/Halvard/Corvane/Local State"), json + "}"));
  }

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
    EXPECT_TRUE(result.err.ends_with("Terminated Dispatcher Application.\n"));
    return result;
  }

  // Waits for `count` records, and takes them away; the dispatcher has ended, so no more come.
  std::vector<BrowserRecord> Records(size_t count) {
    std::vector<BrowserRecord> records = WaitForBrowserRecords(Home("records"), count);
    RemoveTree(Home("records"));
    EXPECT_TRUE(MakeDirectories(Home("records")));
    return records;
  }

  TempDir home_;
  std::string work_entry_ = Home("data/applications/com.velora.velorabrowser.desktop");
  std::string log_file_ = Home(".config/Halvard/Corvane/logs/CorvaneDispatcher_debug.log");
};

TEST_F(DispatcherTest, EmptyDeliveryLogsTheWholeLifeToFileAndStandardErrorWhenThereIsALogsFolder) {
  ProcessResult result = Run({"--help"}, Options());
  EXPECT_TRUE(result.seconds >= 2.0 && result.seconds < 8.0) << result.seconds;  // the termination task's wait
  std::string file = ReadFile(log_file_);
  EXPECT_EQ(Messages(file), (Strings{
                                kBanner, "Dispatcher Application is launching.",
                                "Local State Path " + Home(".config/Halvard/Corvane/Local State"),
                                "Local State is not readable.",
                                "Refused a command-line argument that is neither a URL nor an existing path: --help",
                                "Corvane Dispatcher received urls - [  ]", "Terminated Dispatcher Application."}));
  EXPECT_EQ(result.out + result.err, file);
  std::error_code error;  // the file's mode: URLs can carry secrets
  EXPECT_EQ(std::filesystem::status(log_file_, error).permissions(), std::filesystem::perms(0600));

  ASSERT_EQ(unlink(log_file_.c_str()) + rmdir(Home(".config/Halvard/Corvane/logs").c_str()), 0);
  result = Run({}, Options());
  EXPECT_FALSE(FileExists(Home(".config/Halvard/Corvane/logs"))) << "made by the dispatcher";
  EXPECT_EQ(Messages(result.err).size(), 6u);  // nothing about the log
}

TEST_F(DispatcherTest, LogExpiresAt97WholeHoursOfAgeAndAnUndeletableOneGetsAnErrorFirst) {
  const Strings kFresh = {kBanner, "Dispatcher Application is launching."};
  const Strings kUndeletable = {"Log file deletion after expiry failed!", kBanner};
  // Age, whether the old file stays, its first new lines; last, as one who may write the file but not its folder.
  for (const auto& [age, kept, first] : {std::tuple(97 * 3600, false, kFresh), {(96 * 60 + 59) * 60, true, kFresh},
                                         {-200 * 3600, true, kFresh}, {97 * 3600, true, kUndeletable}}) {
    if (first == kUndeletable && !RunningAsRoot()) continue;  // only root can hand the file to another user
    SCOPED_TRACE(age);
    ASSERT_TRUE(WriteFile(log_file_, "an old line\n", 0666));
    Run({}, Options(age), first == kUndeletable ? AsUnprivilegedUser() : Strings{});
    std::string file = ReadFile(log_file_);
    EXPECT_EQ(file.starts_with("an old line\n"), kept);  // and appended to
    Strings messages = Messages(file.substr(kept ? 12 : 0));
    messages.resize(2);
    EXPECT_EQ(messages, first);
  }
}

TEST_F(DispatcherTest, EachUrlOpensInTheChosenBrowserWithTheLauncherLines) {
  // The non-work browser's location, the URL, the browser that starts ("": none, as the work browser's entry is gone
  // by then) and the launcher's lines.
  const std::vector<std::tuple<std::string, std::string, std::string, Strings>> kScenarios = {
      {"file:///missing", kWorkUrl, "work browser", {kHosted, kLaunched}},  // not even looked at
      {"file://$HOME/B%20100%25/other%20browser", kOtherUrl, "other browser", {kFound, kLaunched}},
      {"file://$HOME/other%20browser.desktop", kOtherUrl, "other browser", {kFound, kLaunched}},
      {"", kOtherUrl, "work browser", {kNoneSet, kLaunched}},
      {"file:///missing", kOtherUrl, "work browser", {kNotFound, kLaunched}},
      // Not startable: retried in the work browser, silently when that works.
      {"file://$HOME/readme.txt", kOtherUrl, "work browser", {kFound, kFirstFailed}},
      {"file://$HOME/removed%20browser.desktop", kOtherUrl, "work browser", {kFound, kFirstFailed}},
      {"", kWorkUrl, "", {kHosted, kFirstFailed, kRetryFailed}}};
  for (const auto& [non_work, url, browser, messages] : kScenarios) {
    SCOPED_TRACE(non_work + " " + url);
    WriteLocalState(non_work);
    ASSERT_TRUE(!browser.empty() || unlink(work_entry_.c_str()) == 0);
    EXPECT_EQ(Messages(Run({url}, Options()).err, true), messages);
    Strings got;  // "browser: argument VFS" for each argument of each start
    for (auto& r : Records(!browser.empty()))
      for (auto& a : r.args) got.push_back(r.name + ": " + a + " " + r.env["GIO_USE_VFS"]);
    EXPECT_EQ(got, browser.empty() ? Strings{} : Strings{browser + ": " + url + " gvfs"});
  }
  EXPECT_FALSE(FileExists(Home("ran")));
}

TEST_F(DispatcherTest, HostileUrlsOfOneDeliveryReachTheirBrowsersByteForByteWithTheToken) {
  WriteLocalState("file://$HOME/B%20100%25/other%20browser");
  Strings delivery, received;
  for (std::string tail : {"a?b=1&c=2;d=3|e>f<g", "$(touch ran)`touch ran`${HOME}", "q='s'\"d\"\\back",
                           "%25%20%2F%00%u%U%f%F%i%c%k%%", "a b\tc#fragment", "--new-window?-x",
                           "\xC3\xBC\xE6\x97\xA5/\xF0\x9F\x98\x80/not-utf-8/\xFF\xFE\xC3", "z"}) {
    if (tail == "z") tail.resize(100000, 'z');
    delivery.insert(delivery.end(), {"https://intra.corp.test/" + tail, "https://news.example/" + tail});
  }
  ProcessOptions options = Options();
  options.env["GIO_USE_VFS"] = std::nullopt;
  // As if GIO started us from our own entry, with a token to pass on.
  options.env.insert({{"GIO_LAUNCHED_DESKTOP_FILE", "/usr/share/applications/com.halvard.corvane.dispatcher.desktop"},
                      {"GIO_LAUNCHED_DESKTOP_FILE_PID", "4242"}, {"XDG_ACTIVATION_TOKEN", "token-1"},
                      {"DESKTOP_STARTUP_ID", "startup-2"}});
  Run(delivery, options);
  for (BrowserRecord& record : Records(delivery.size())) {
    bool work = record.name == "work browser";
    for (const std::string& url : record.args) EXPECT_EQ(work, url.starts_with("https://intra.corp.test/")) << url;
    received.insert(received.end(), record.args.begin(), record.args.end());
    EXPECT_EQ(record.env["XDG_ACTIVATION_TOKEN"] + " " + record.env["DESKTOP_STARTUP_ID"], "token-1 startup-2");
    EXPECT_EQ(record.env.count("GIO_USE_VFS"), 0u);  // the forced local VFS is ours alone
    // GIO names the entry it started and the process that became; ours are not passed on.
    EXPECT_EQ(record.env["GIO_LAUNCHED_DESKTOP_FILE"], work ? work_entry_ : "");
    EXPECT_EQ(record.env["GIO_LAUNCHED_DESKTOP_FILE_PID"], work ? std::to_string(record.pid) : "");
    // Started directly: nothing to read, and none of our descriptors (the log).
    EXPECT_TRUE(work || (record.stdin_target == "/dev/null" && record.fds.empty())) << record.stdin_target;
  }
  EXPECT_EQ(std::multiset(received.begin(), received.end()), std::multiset(delivery.begin(), delivery.end()));
  EXPECT_FALSE(FileExists("ran"));
}

TEST_F(DispatcherTest, EveryKindOfDesktopEntryGetsTheUrlAsOneArgumentAndTheToken) {
  if (access("/usr/bin/dbus-run-session", X_OK) != 0) GTEST_SKIP() << "needs dbus-run-session";
  // D-Bus-activatable entries; the program of their Exec line is what GIO runs when there is no session bus.
  auto activatable = [this](const std::string& program) {
    return "[Desktop Entry]\nType=Application\nName=A\nDBusActivatable=true\nStartupNotify=true\nExec=\"" +
           Home("Entry/" + program) + "\" %u\n";
  };
  ASSERT_TRUE(MakeDirectories(Home("data/dbus-1/services")));
  for (const char* name : {"com.velora.velorabrowser", "org.example.Personal"}) {
    ASSERT_TRUE(WriteFile(Home("data/dbus-1/services/") + name + ".service",
                          std::string("[D-BUS Service]\nName=") + name + "\nExec=" + CORVANE_RECORDER_BROWSER +
                              " --dbus-service " + name + "\n"));
  }
  ASSERT_EQ(symlink(CORVANE_RECORDER_BROWSER, Home("Entry/flatpak").c_str()), 0);
  for (const char* name : {"org.example.Personal", "org.example.Unserved"})
    ASSERT_TRUE(WriteFile(Home(name) + ".desktop", activatable("other browser")));
  ASSERT_TRUE(WriteFile(Home("sandboxed.desktop"), "[Desktop Entry]\nType=Application\nName=S\nExec=" +
                                                       Home("Entry/flatpak") +
                                                       " run --branch=stable --arch=x86_64 --command=personal "
                                                       "--file-forwarding org.example.Personal @@u %u @@\n"));
  const std::string kPlainWorkEntry = ReadFile(work_entry_);
  const std::string work = kWorkUrl, other = kOtherUrl, tokens = " | startup-2 token-1";
  // Whether the work browser is D-Bus activatable, the non-work browser, whether there is a session bus, the URL,
  // the launcher's lines and the one start as "program: arguments | DESKTOP_STARTUP_ID XDG_ACTIVATION_TOKEN".
  // Over the bus the token arrives in the platform data, which carries one.
  const std::vector<std::tuple<bool, std::string, bool, std::string, Strings, std::string>> kScenarios = {
      {true, "", true, work, {kHosted, kLaunched}, "com.velora.velorabrowser: " + work + " | startup-2 -"},
      {false, "org.example.Personal.desktop", true, other, {kFound, kLaunched},
       "org.example.Personal: " + other + " | startup-2 -"},
      {false, "org.example.Personal.desktop", false, other, {kFound, kLaunched}, "other browser: " + other + tokens},
      // Nobody serves that name: the failed activation is retried in the work browser.
      {false, "org.example.Unserved.desktop", true, other, {kFound, kFirstFailed}, "work browser: " + other + tokens},
      {false, "sandboxed.desktop", true, other, {kFound, kLaunched},
       "flatpak: run --branch=stable --arch=x86_64 --command=personal --file-forwarding org.example.Personal @@u " +
           other + " @@" + tokens}};
  ProcessOptions options = Options();
  options.env.insert({{"XDG_ACTIVATION_TOKEN", "token-1"}, {"DESKTOP_STARTUP_ID", "startup-2"}});
  for (const auto& [work_activatable, non_work, bus, url, messages, start] : kScenarios) {
    SCOPED_TRACE(non_work + (bus ? " with a bus" : " without a bus"));
    WriteLocalState(non_work.empty() ? "" : "file://$HOME/" + non_work);
    ASSERT_TRUE(WriteFile(work_entry_, work_activatable ? activatable("work browser") : kPlainWorkEntry));
    EXPECT_EQ(Messages(Run({url}, options, bus ? Strings{"/usr/bin/dbus-run-session", "--"} : Strings{}).err, true),
              messages);
    Strings got;
    for (BrowserRecord& r : Records(1)) {
      std::string line = r.name + ":";
      for (const std::string& a : r.args) line += " " + a;
      auto token = [&r](const char* name) { return r.env.count(name) ? r.env[name] : std::string("-"); };
      got.push_back(line + " | " + token("DESKTOP_STARTUP_ID") + " " + token("XDG_ACTIVATION_TOKEN"));
    }
    EXPECT_EQ(got, Strings{start});
  }
}

TEST_F(DispatcherTest, SecondDeliveryIsHandledByTheRunningDispatcher) {
  if (access("/usr/bin/dbus-run-session", X_OK) != 0) GTEST_SKIP() << "needs dbus-run-session";
  ProcessOptions options = Options();
  options.env["D"] = CORVANE_DISPATCHER_BINARY;
  // The second starts while the first waits out its shutdown; handling its own delivery, it would launch too.
  ProcessResult result = RunProcess({"/usr/bin/dbus-run-session", "--", "/bin/sh", "-c",
                                     "$D https://a.example/ & sleep 1; "
                                     "$D https://b.example/ https://c.example/; echo $?; wait $!; echo $?"}, options);
  EXPECT_EQ(result.out, "0\n0\n") << result.err;
  Strings messages = Messages(ReadFile(log_file_));
  for (auto [message, count] : {std::pair<std::string, int>(kLaunched, 3), {"Dispatcher Application is launching.", 1},
                                {"Corvane Dispatcher received urls - [ https://b.example/, https://c.example/ ]", 1}})
    EXPECT_EQ(std::count(messages.begin(), messages.end(), message), count) << message;
  EXPECT_EQ(Records(3).size(), 3u);
}

}  // namespace
}  // namespace corvane_test
