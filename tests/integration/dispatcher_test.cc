// The real dispatcher in a private home, where the stand-in browser (tests/support/recorder_browser.cc) is the work
// browser, by its desktop entry, and the non-work browser, by a location that needs escapes: its log, launches,
// deliveries and loops.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "gtest/gtest.h"
#include "tests/support/browser_record.h"
#include "tests/support/process.h"

namespace corvane_test {
namespace {

constexpr char kBanner[] = "INFO --------------------Corvane Dispatcher Initialized.-----------------------";
constexpr char kHosted[] = "INFO It is a hosted app url. Launching url in work browser.";
constexpr char kNoneSet[] = "ERROR No browser set for non-work URLs. Opening in work browser.";
constexpr char kFound[] = "INFO Selected non-work browser found, will launch url in non-work browser.";
constexpr char kNotFound[] = "ERROR Selected non-work browser not found, will open url in work browser.";
constexpr char kFirstFailed[] = "ERROR Failed to launch URL, will try to launch URL again in work browser.";
constexpr char kLaunched[] = "INFO Launched browser successfully.";
constexpr char kRetryFailed[] = "ERROR Failed to launch URL in work browser as well.";
constexpr char kIsDispatcher[] = "ERROR Selected non-work browser is the dispatcher itself and would start it again.";
constexpr char kLoop[] =
    "ERROR Started by a dispatcher's browser launch moments ago: not routing again, opening url in work browser.";
constexpr char kWorkLoop[] =
    "ERROR Started by a dispatcher's work browser launch for a loop: the work browser runs the dispatcher as well.";
constexpr char kNoAnswer[] = "ERROR The browser did not answer in time; not retrying, it may still open the URL.";
constexpr char kNoPolicy[] = "ERROR No policy doc URLs found. Re-directing to Corvane.";
constexpr char kLaunching[] = "INFO Dispatcher Application is launching.";
constexpr char kTerminated[] = "INFO Terminated Dispatcher Application.";
constexpr char kWorkUrl[] = "https://intra.corp.test/app/", kOtherUrl[] = "https://news.example/today?x=1";
constexpr char kEscaped[] = "file://$HOME/B%20100%25/other%20browser";
constexpr char kDbusRunSession[] = "/usr/bin/dbus-run-session";

Strings Sorted(Strings list) {
  std::sort(list.begin(), list.end());
  return list;
}

// "SEVERITY message" of each "[MMDD/HHMMSS.uuuuuu:SEVERITY:file(line)] message" line; only the launcher's, if
// `launcher`.
Strings Messages(const std::string& text, bool launcher = false) {
  const Strings kLauncher = {kHosted, kNoneSet,     kFound,        kNotFound, kFirstFailed,
                             kLaunched, kRetryFailed, kIsDispatcher, kLoop,     kWorkLoop, kNoAnswer};
  Strings messages;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    size_t severity = line.find(':') + 1;
    std::string message = line.substr(severity, line.find(':', severity) - severity) + " " +
                          line.substr(std::min(line.find(")] ") + 3, line.size()));
    if (!launcher || std::count(kLauncher.begin(), kLauncher.end(), message)) messages.push_back(message);
  }
  return messages;
}

size_t Count(const std::string& log, const std::string& message) {
  Strings messages = Messages(log);
  return std::count(messages.begin(), messages.end(), message);
}

std::string Entry(const std::string& program, bool activatable = false) {
  return std::string("[Desktop Entry]\nType=Application\nName=B\n") +
         (activatable ? "DBusActivatable=true\nStartupNotify=true\n" : "") + "Exec=\"" + program + "\" %u\n";
}

class DispatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* folder : {"config/Halvard/Corvane/logs", "data/applications", "data/dbus-1/services", "records",
                               "B 100%", "Entry", "bin"})
      ASSERT_TRUE(MakeDirectories(Home(folder)));
    // The program's folder needs escapes in a URL; GIO refuses a "%" in the program path of an entry.
    for (auto [link, target] : {std::pair("B 100%/other browser", CORVANE_RECORDER_BROWSER),
                                {"Entry/work browser", CORVANE_RECORDER_BROWSER},
                                {"Entry/other browser", CORVANE_RECORDER_BROWSER},
                                {"bin/linked", CORVANE_DISPATCHER_BINARY},
                                {"bin/corvane-dispatcher", CORVANE_DISPATCHER_BINARY}})
      ASSERT_EQ(symlink(target, Home(link).c_str()), 0);
    const std::string other = Home("Entry/other browser");
    for (const auto& [path, text] : std::vector<std::pair<std::string, std::string>>{
             {work_entry_, Entry(Home("Entry/work browser"))}, {Home("other browser.desktop"), Entry(other)},
             {Home("runs-us.desktop"), Entry(CORVANE_DISPATCHER_BINARY)},
             {Home("com.halvard.corvane.dispatcher.desktop"), Entry(other)},
             {Home("org.example.Personal.desktop"), Entry(other, true)},
             {Home("org.example.Unserved.desktop"), Entry(other, true)},
             {Home("readme.txt"), "touch '" + Home("ran") + "'\n"},  // if a shell ran it
             {Home("bin/wrapper"), "#!/bin/sh\n\"$D\" \"$@\"\n"},     // $D: the dispatcher, which it does not name
             {Home("bin/exec-wrapper"), "#!/bin/sh\nexec '" CORVANE_DISPATCHER_BINARY "' \"$@\"\n"},
             {Home("bin/name-wrapper"), "#!/bin/sh\nexec corvane-dispatcher \"$@\"\n"}})  // found on PATH
      ASSERT_TRUE(WriteFile(path, text, path.ends_with(".desktop") ? 0644 : 0755));
    ASSERT_EQ(mkfifo(Home("fifo.desktop").c_str(), 0644), 0);  // no writer ever comes
    for (const std::string name : {"com.velora.velorabrowser", "org.example.Personal"}) {
      ASSERT_TRUE(WriteFile(Home("data/dbus-1/services/" + name + ".service"), "[D-BUS Service]\nName=" + name +
                            "\nExec=" CORVANE_RECORDER_BROWSER " --dbus-service " + name + "\n"));
    }
  }

  std::string Home(const std::string& relative) const { return home_.Child(relative); }
  // Work URLs are those of corp.test; "$HOME" in the non-work browser's location is the home folder.
  void WriteLocalState(std::string non_work) {
    if (size_t at = non_work.find("$HOME"); at != std::string::npos) non_work.replace(at, 5, home_.path());
    std::string browser = R"(,"browser":{"browserPathForNonWorkLinks":")" + non_work + "\"}";
    ASSERT_TRUE(WriteFile(local_state_, R"({"kel_prefs":{"policy":{"browser_urls":[{"patterns":["*.corp.test/*"]}]}})" +
                                            (non_work.empty() ? "" : browser) + "}"));
  }

  ProcessOptions Options(int64_t clock_ahead_seconds = 0) const {
    ProcessOptions options;
    options.clear_environment = true;  // and no session bus: every process handles its own delivery
    // The configuration folder is "config", not "$HOME/.config", spelled with a ".." that the lines show resolved.
    options.env = {{"HOME", home_.path()}, {"XDG_CONFIG_HOME", Home("data/../config")}, {"XDG_DATA_DIRS", Home("data")},
                   {"PATH", Home("bin") + ":/usr/bin:/bin"},
                   {"CORVANE_RECORDER_DIR", Home("records")}, {"DBUS_SESSION_BUS_ADDRESS", "disabled:"},
                   {"LD_PRELOAD", clock_ahead_seconds ? CORVANE_FAKE_CLOCK_LIBRARY : ""},
                   {"CORVANE_FAKE_CLOCK_OFFSET_SECONDS", std::to_string(clock_ahead_seconds)},
                   {"GIO_USE_VFS", "gvfs"}, {"D", CORVANE_DISPATCHER_BINARY}};  // gvfs: the user's, which browsers get
    return options;
  }

  // Runs the dispatcher, which must end by itself, successfully.
  ProcessResult Run(const Strings& urls, const ProcessOptions& options, Strings argv = {}) {
    argv.push_back(CORVANE_DISPATCHER_BINARY);
    argv.insert(argv.end(), urls.begin(), urls.end());
    ProcessResult result = RunProcess(argv, options);
    EXPECT_TRUE(result.exited && result.exit_code == 0) << result.signal << result.err.substr(0, 2000);
    EXPECT_GE(Count(result.err, kTerminated), 1u) << result.err.substr(0, 2000);
    return result;
  }

  TempDir home_;
  std::string work_entry_ = Home("data/applications/com.velora.velorabrowser.desktop");
  std::string local_state_ = Home("config/Halvard/Corvane/Local State");
  std::string log_file_ = Home("config/Halvard/Corvane/logs/CorvaneDispatcher_debug.log");
};

TEST_F(DispatcherTest, LogsItsWholeLifeToFileAndStandardErrorAndRoutesEveryUrlToTheWorkBrowserWithoutPolicy) {
  const std::string kPath = "INFO Local State Path " + local_state_, kUnreadable = "ERROR Local State is not readable.";
  const std::string kReceived = "INFO Corvane Dispatcher received urls - [ ";
  // No option is GLib's (GApplication took the first two, never ended and opened nothing). Control characters from
  // outside never start a line of their own nor hide text; the browser gets them all.
  const std::string kNotUrl = "ERROR Refused a command-line argument that is neither a URL nor an existing path: ";
  const std::string kForged = "[1121/091937.569714:INFO:classifier.cc(64)] Pattern : *";
  const std::string kOther = kOtherUrl + ("\x7f\x1b[8m\r\n" + kForged);
  ProcessResult result =
      Run({"--gapplication-service", "--help-gapplication", "--help\n" + kForged, kOther, kWorkUrl}, Options());
  std::string file = ReadFile(log_file_);
  EXPECT_EQ(Messages(file), (Strings{kBanner, kLaunching, kPath, kUnreadable, kNotUrl + "--gapplication-service",
                                     kNotUrl + "--help-gapplication", kNotUrl + "--help%0A" + kForged,
                                     kReceived + kOtherUrl + "%7F%1B[8m%0D%0A" + kForged + ", " + kWorkUrl + " ]",
                                     kNoPolicy, kHosted, kLaunched, kNoPolicy, kHosted, kLaunched, kTerminated}));
  EXPECT_EQ(result.out + result.err, file);
  std::error_code error;  // the file's mode: URLs can carry secrets
  EXPECT_EQ(std::filesystem::status(log_file_, error).permissions(), std::filesystem::perms(0600));
  Strings received;
  for (BrowserRecord& r : WaitForBrowserRecords(Home("records"), 2)) received.push_back(r.name + ": " + r.args.at(0));
  EXPECT_EQ(Sorted(received), Sorted({"work browser: " + kOther, "work browser: " + std::string(kWorkUrl)}));

  // An empty delivery ends after the termination task's wait. A log that cannot be written costs no line: no folder
  // (a relative XDG_CONFIG_HOME does not count, and "$HOME/.config" does not exist).
  ProcessOptions relative = Options();
  relative.env["XDG_CONFIG_HOME"] = "config";
  result = Run({}, relative);
  EXPECT_TRUE(result.seconds >= 2.0 && result.seconds < 8.0) << result.seconds;
  const std::string kDefaultPath = "INFO Local State Path " + Home(".config/Halvard/Corvane/Local State");
  EXPECT_EQ(Messages(result.err),
            (Strings{kBanner, kLaunching, kDefaultPath, kUnreadable, kReceived + " ]", kTerminated}));
  EXPECT_FALSE(FileExists(Home(".config"))) << "made by the dispatcher";

  // Whatever is found at the log's path, or however full it is, the URL still opens; nothing is written through a
  // link, the file we write to is ours with mode 0600, a line is written whole or not at all, and each just once.
  const std::string kV(8000, 'v'), kRefused = "Not logging to a file that is ", kRun = "exec \"$D\" \"$@\"";
  const std::tuple<std::string, std::string, std::string> rows[] = {
      {"ln -s \"$V\" \"$L\"", kRun, "a symbolic link"}, {"ln -s \"$V.new\" \"$L\"", kRun, "a symbolic link"},
      {"ln \"$V\" \"$L\"", kRun, "a hard link"}, {"mkfifo \"$L\"", kRun, "not a regular file"},
      {"mkfifo \"$L\" && exec 3<>\"$L\"", kRun, "not a regular file"},  // a FIFO with a reader opens
      {"mkdir \"$L\"", kRun, "not a regular file"}, {"cp \"$V\" \"$L\" && chown 65534 \"$L\"", kRun, "another user's"},
      {"cp \"$V\" \"$L\" && chmod 644 \"$L\"", "exec prlimit --fsize=8020 \"$D\" \"$@\"", ""},  // full, and tightened
      {"true", kRun + " <&- >&- 2>&-", ""}};
  ProcessOptions options = Options();
  options.env.insert({{"V", Home("victim")}, {"L", log_file_}});
  options.timeout_seconds = 20;
  size_t launches = 2;
  for (const auto& [setup, run, refusal] : rows) {
    if (refusal == "another user's" && !RunningAsRoot()) continue;  // only root can hand a file to another user
    SCOPED_TRACE(setup);
    RemoveTree(log_file_);
    RemoveTree(Home("victim.new"));
    ASSERT_TRUE(WriteFile(Home("victim"), kV));
    result = RunProcess({"/bin/sh", "-c", setup + " && " + run, "sh", kWorkUrl}, options);
    EXPECT_TRUE(result.exited && result.exit_code == 0) << result.err;
    std::string log = run.ends_with("&-") ? ReadFile(log_file_) : result.err;
    if (!refusal.empty()) {
      EXPECT_EQ(log.substr(0, log.find('\n') + 1), kRefused + refusal + ": " + log_file_ + "\n");
      log.erase(0, log.find('\n') + 1);
    }
    EXPECT_EQ(Messages(log), (Strings{kBanner, kLaunching, kPath, kUnreadable, kReceived + kWorkUrl + " ]", kNoPolicy,
                                      kHosted, kLaunched, kTerminated}));
    EXPECT_EQ(WaitForBrowserRecords(Home("records"), ++launches).size(), launches);
    EXPECT_TRUE(ReadFile(Home("victim")) == kV);
    EXPECT_FALSE(FileExists(Home("victim.new")));
    if (setup.starts_with("cp")) {  // another user's file is left alone; ours, full, is narrowed to 0600
      EXPECT_TRUE(ReadFile(log_file_) == kV);
      std::filesystem::perms mode = std::filesystem::status(log_file_, error).permissions();
      EXPECT_EQ(mode, std::filesystem::perms(refusal.empty() ? 0600 : 0644));
    }
  }
}

TEST_F(DispatcherTest, LogExpiresAt97WholeHoursOfAgeAndAnUndeletableOneGetsAnErrorFirst) {
  const Strings kFresh = {kBanner, kLaunching};
  const Strings kUndeletable = {"ERROR Log file deletion after expiry failed!", kBanner};
  // Age, whether the old file stays, its first new lines; last, as the owner of the file but not of its folder.
  for (const auto& [age, kept, first] : {std::tuple(97 * 3600, false, kFresh), {(96 * 60 + 59) * 60, true, kFresh},
                                         {-200 * 3600, true, kFresh}, {97 * 3600, true, kUndeletable}}) {
    if (first == kUndeletable && !RunningAsRoot()) continue;  // only root can hand the file to another user
    SCOPED_TRACE(age);
    ASSERT_TRUE(WriteFile(log_file_, "an old line\n", 0666));
    ASSERT_TRUE(first != kUndeletable || chown(log_file_.c_str(), 65534, 65534) == 0);  // the log must be its own
    Run({}, Options(age), first == kUndeletable ? AsUnprivilegedUser() : Strings{});
    std::string file = ReadFile(log_file_);
    EXPECT_EQ(file.starts_with("an old line\n"), kept);  // and appended to
    Strings messages = Messages(file.substr(kept ? 12 : 0));
    messages.resize(2);
    EXPECT_EQ(messages, first);
  }
}

TEST_F(DispatcherTest, HostileUrlsReachTheirBrowsersByteForByteWithTheirDeliverysTokenAlsoThroughTheRunningOne) {
  if (access(kDbusRunSession, X_OK) != 0) GTEST_SKIP() << "needs dbus-run-session";
  WriteLocalState(kEscaped);
  Strings urls;
  for (std::string tail : {"a?b=1&c=2;d=3|e>f<g", "$(touch ran)`touch ran`${HOME}", "q='s'\"d\"\\back",
                           "%25%20%2F%00%u%U%f%F%i%c%k%%", "a b\tc#fragment", "--new-window?-x",
                           "\xC3\xBC\xE6\x97\xA5/\xF0\x9F\x98\x80/not-utf-8/\xFF\xFE\xC3", "z"}) {
    if (tail == "z") tail.resize(100000, 'z');
    urls.insert(urls.end(), {"https://intra.corp.test/" + tail, "https://news.example/" + tail});
  }
  urls.push_back("HTTPS:\\\\INTRA.c\torp.test.\\x\\..?y=1\x01");  // read as browsers read it: a work URL
  ProcessOptions options = Options();
  options.env.insert({{"F", CORVANE_FAKE_CLOCK_LIBRARY}, {"L", log_file_}});
  // The second dispatcher starts once the first has its delivery and waits out its shutdown, and hands its own
  // delivery over; handling it, it would launch too. Its clock is 97 hours ahead: running the start-up, it would take
  // the first one's log for expired.
  Strings argv = {kDbusRunSession, "--", "/bin/sh", "-c",
                  "XDG_ACTIVATION_TOKEN=t1 DESKTOP_STARTUP_ID=s1 $D \"$1\" \"$2\" \"$3\" \"$4\" & "
                  "until grep -qs 'received urls' \"$L\"; do sleep 0.02; done; shift 4; XDG_ACTIVATION_TOKEN=t2 "
                  "LD_PRELOAD=$F CORVANE_FAKE_CLOCK_OFFSET_SECONDS=349200 $D \"$@\"; echo $?; wait $!; echo $?", "sh"};
  argv.insert(argv.end(), urls.begin(), urls.end());
  ProcessResult result = RunProcess(argv, options);
  EXPECT_EQ(result.out, "0\n0\n") << result.err.substr(0, 2000);
  // One start-up, whose log the forwarder left alone: both deliveries are in it.
  std::string log = ReadFile(log_file_);
  for (const char* once : {kBanner, kLaunching, kTerminated}) EXPECT_EQ(Count(log, once), 1u) << once;
  EXPECT_NE(log.find("received urls - [ " + urls[0] + ", "), std::string::npos);
  EXPECT_NE(log.find("received urls - [ " + urls[4] + ", "), std::string::npos);
  Strings received;
  for (BrowserRecord& record : WaitForBrowserRecords(Home("records"), urls.size())) {
    ASSERT_EQ(record.args.size(), 1u);
    const std::string& url = record.args[0];
    received.push_back(url);
    EXPECT_EQ(record.name == "work browser", url.starts_with("https://intra.corp.test/") || url[0] == 'H') << url;
    bool first = std::find(urls.begin(), urls.begin() + 4, url) != urls.begin() + 4;
    EXPECT_EQ(record.env["XDG_ACTIVATION_TOKEN"] + " " + record.env["DESKTOP_STARTUP_ID"], first ? "t1 s1" : "t2 ");
  }
  EXPECT_EQ(Sorted(received), Sorted(urls));
  EXPECT_FALSE(FileExists("ran"));
}

// The URLs that a dispatcher ended by a signal names as not handed to a browser.
Strings NamedOnSignal(const std::string& log) {
  const std::string kLine = "before these urls were handed to a browser - [ ";
  Strings named;
  for (const std::string& message : Messages(log)) {
    if (size_t at = message.find(kLine); at != std::string::npos) {
      std::string list = message.substr(at + kLine.size(), message.size() - at - kLine.size() - 2);  // without " ]"
      for (size_t start = 0, end = 0; start <= list.size(); start = end + 2)
        named.push_back(list.substr(start, (end = std::min(list.find(", ", start), list.size())) - start));
    }
  }
  return named;
}

TEST_F(DispatcherTest, ASignalDuringADeliveryEndsItByThatSignalAndNamesEveryUrlThatNoBrowserWasStartedFor) {
  ProcessOptions options = Options();
  options.env["L"] = log_file_;
  // 100 URLs for each; none of the signals ignored, as a terminal's job or a session's process gets them.
  Strings script = {"/bin/sh", "-c", "n=0; for s in TERM INT HUP; do n=$((n+1)); env --default-signal $D $(seq -f "
                    "\"https://intra.corp.test/$s/%g\" 100) & until [ $(grep -c Initialized \"$L\") -ge $n ]; do sleep "
                    "0.005; done; kill -$s $!; wait $!; echo $?; done"};
  EXPECT_EQ(RunProcess(script, options).out, "143\n130\n129\n");
  Strings urls, seen = NamedOnSignal(ReadFile(log_file_));
  for (std::string signal : {"TERM", "INT", "HUP"})
    for (int i = 1; i <= 100; ++i) urls.push_back("https://intra.corp.test/" + signal + "/" + std::to_string(i));
  for (BrowserRecord& record : WaitForBrowserRecords(Home("records"), urls.size() - seen.size()))
    seen.push_back(record.args.at(0));
  EXPECT_EQ(Sorted(seen), Sorted(urls)) << "each opened or named, once";
}

// P, the running one, stopped: F hands its delivery itself after the wait, S named its own when SIGTERM ended it, and P
// found both stale once continued. Q, killed while it handed on G's 100 URLs: G hands those Q had not seen through.
TEST_F(DispatcherTest, ADeliveryTheRunningOneDoesNotSeeThroughIsHandledByItsSenderAndOnlyWhatItDidNotOpen) {
  if (access(kDbusRunSession, X_OK) != 0) GTEST_SKIP() << "needs dbus-run-session";
  Strings urls = {"https://p.example/", "https://f.example/1", "https://f.example/2", "https://s.example/",
                  "https://q.example/"};
  for (int i = 0; i < 100; ++i) urls.push_back("https://g.example/" + std::to_string(i));
  ProcessOptions options = Options();
  options.env.insert({{"L", log_file_}, {"R", Home("records")}});
  Strings argv = {kDbusRunSession, "--", "/bin/sh", "-c",
                  "w() { until grep -qs \"$1\" \"$L\"; do sleep 0.01; done; }; $D \"$1\" & P=$!; w p.example; "
                  "kill -STOP $P; $D \"$2\" \"$3\" & F=$!; $D \"$4\" & S=$!; sleep 1; kill $S; wait $F; echo $?; "
                  "wait $S; echo $?; kill -CONT $P; wait $P; echo $?; $D \"$5\" & Q=$!; w q.example; shift 5; "
                  "$D \"$@\" & until [ $(ls \"$R\" | wc -l) -ge 15 ]; do sleep 0.002; done; kill -KILL $Q; wait $!; "
                  "echo $?", "sh"};
  argv.insert(argv.end(), urls.begin(), urls.end());
  EXPECT_EQ(RunProcess(argv, options).out, "0\n143\n0\n0\n");
  std::string log = ReadFile(log_file_);
  EXPECT_EQ(Count(log, "ERROR The running dispatcher did not take this delivery; handling it in this process."), 2u);
  EXPECT_EQ(NamedOnSignal(log), Strings{urls[3]});
  std::map<std::string, int> opened;
  for (BrowserRecord& record : WaitForBrowserRecords(Home("records"), urls.size() - 1)) ++opened[record.args.at(0)];
  int again = 0;
  for (const std::string& url : urls) {
    EXPECT_EQ(opened[url] > 0, url != urls[3]) << url;
    again += std::max(opened[url] - 1, 0);
  }
  EXPECT_LE(again, 3) << "opened twice: only what Q had started but not yet acknowledged when it was killed";
}

struct Route {
  const char* name;
  std::string non_work;  // the non-work browser's location; "": none
  std::string work;      // the work browser entry: "": the stand-in's, "-": none, "dbus": activatable, "mute": one that
                         // never answers, "fifo": a FIFO in the folder looked at first, else bin/<work> runs
  bool bus;              // a session bus: later dispatchers hand their deliveries to the first
  std::string url;
  Strings lines;         // the launchers' lines of every dispatcher
  std::string browser;   // the browser that gets the URL; "": none
  size_t banners;        // dispatchers that started up
};
void PrintTo(const Route& r, std::ostream* out) { *out << r.name; }

class RouteTest : public DispatcherTest, public ::testing::WithParamInterface<Route> {};

TEST_P(RouteTest, TheUrlReachesItsBrowserWithTheLauncherLinesAndTheTokenAndEveryLoopEnds) {
  const Route& r = GetParam();
  if (r.bus && access(kDbusRunSession, X_OK) != 0) GTEST_SKIP() << "needs dbus-run-session";
  WriteLocalState(r.non_work);
  std::error_code error;
  for (const char* copy : {"bin/copyA", "bin/copyB"})  // copies, not links
    ASSERT_TRUE(r.work != "copyA" || std::filesystem::copy_file(CORVANE_DISPATCHER_BINARY, Home(copy), error));
  std::string work = r.work == "$D" ? CORVANE_DISPATCHER_BINARY : Home("bin/" + r.work);
  bool activatable = r.work == "dbus" || r.work == "mute";
  std::string entry = activatable ? Entry(Home("Entry/work browser"), true) : Entry(work);
  if (r.work == "fifo") {  // in the folder looked at before data/applications
    ASSERT_TRUE(MakeDirectories(Home(".local/share/applications")));
    ASSERT_EQ(mkfifo(Home(".local/share/applications/com.velora.velorabrowser.desktop").c_str(), 0644), 0);
  } else {
    ASSERT_TRUE(r.work == "-" ? unlink(work_entry_.c_str()) == 0 : r.work.empty() || WriteFile(work_entry_, entry));
  }
  ProcessOptions options = Options();
  if (r.work == "mute") options.env["CORVANE_RECORDER_MUTE"] = "1";
  options.env.insert({{"XDG_ACTIVATION_TOKEN", "token-1"}, {"DESKTOP_STARTUP_ID", "startup-2"},
                      // As if GIO started us from our own entry.
                      {"GIO_LAUNCHED_DESKTOP_FILE", "/usr/share/applications/com.halvard.corvane.dispatcher.desktop"},
                      {"GIO_LAUNCHED_DESKTOP_FILE_PID", "4242"}});
  ProcessResult result = Run({r.url}, options, r.bus ? Strings{kDbusRunSession, "--"} : Strings{});

  // The dispatchers of a loop end by themselves; whatever still runs after the wait is killed with the group.
  std::string log;
  for (int i = 0; i < 1200 && Count(log = ReadFile(log_file_), kBanner) != Count(log, kTerminated); ++i) usleep(25000);
  kill(-result.pid, SIGKILL);
  EXPECT_EQ(Sorted(Messages(log, true)), Sorted(r.lines));
  EXPECT_EQ(Count(log, kBanner), r.banners);
  EXPECT_EQ(Count(log, kTerminated), r.banners);
  bool over_bus = r.browser.find('.') != std::string::npos;
  Strings starts;
  for (BrowserRecord& b : WaitForBrowserRecords(Home("records"), !r.browser.empty())) {
    auto env = [&b](const char* name) { return b.env.count(name) ? b.env[name] : std::string("-"); };
    // Over the bus the token arrives in the platform data, which carries one, and nothing else.
    EXPECT_EQ(b.args.size(), 1u) << "asked more than once";
    starts.push_back(b.name + ": " + b.args.at(0) + " | " + env("DESKTOP_STARTUP_ID") + " " +
                     env("XDG_ACTIVATION_TOKEN") + " " + env("GIO_USE_VFS"));
    // GIO names the entry it starts and the process that became; ours are not passed on. A browser started directly
    // gets nothing to read and none of our descriptors (the log).
    bool direct = env("GIO_LAUNCHED_DESKTOP_FILE") == "-";
    EXPECT_EQ(env("GIO_LAUNCHED_DESKTOP_FILE_PID"), direct ? "-" : std::to_string(b.pid));
    EXPECT_TRUE(!direct || over_bus || (b.stdin_target == "/dev/null" && b.fds.empty())) << b.stdin_target;
  }
  std::string tokens = over_bus ? " | startup-2 - -" : " | startup-2 token-1 gvfs";
  EXPECT_EQ(starts, r.browser.empty() ? Strings{} : Strings{r.browser + ": " + r.url + tokens});
  EXPECT_FALSE(FileExists(Home("ran")));
}

const std::string kWork = "work browser", kOther = "other browser";
const std::string kDbusPersonal = "file://$HOME/org.example.Personal.desktop";
const Strings kRefused = {kIsDispatcher, kNotFound, kLaunched}, kNoWorkBrowser = {kHosted, kFirstFailed, kRetryFailed};
const Strings kWrapped = {kFound, kLaunched, kLoop, kLaunched};
const Strings kWorkWrapped = {kHosted, kLaunched, kLoop, kLaunched, kWorkLoop, kFirstFailed, kRetryFailed};
INSTANTIATE_TEST_SUITE_P(
    Routes, RouteTest,
    ::testing::ValuesIn(std::vector<Route>{
        // The non-work browser is not even looked at for a work URL.
        {"WorkUrl", "file:///missing", "", false, kWorkUrl, {kHosted, kLaunched}, kWork, 1},
        {"NonWorkProgram", kEscaped, "", false, kOtherUrl, {kFound, kLaunched}, kOther, 1},
        {"NonWorkEntry", "file://$HOME/other%20browser.desktop", "", false, kOtherUrl, {kFound, kLaunched}, kOther, 1},
        {"NoNonWork", "", "", false, kOtherUrl, {kNoneSet, kLaunched}, kWork, 1},
        {"NonWorkMissing", "file:///missing", "", false, kOtherUrl, {kNotFound, kLaunched}, kWork, 1},
        // Whatever the scheme, the location's path is what must exist; only a local file can be started. What cannot
        // be started is retried in the work browser, silently when that works.
        {"NonWorkOverHttps", "https://example.com$HOME/B%20100%25/other%20browser", "", false, kOtherUrl,
         {kFound, kFirstFailed}, kWork, 1},
        {"NonWorkIsText", "file://$HOME/readme.txt", "", false, kOtherUrl, {kFound, kFirstFailed}, kWork, 1},
        {"NoWorkBrowser", "", "-", false, kWorkUrl, kNoWorkBrowser, "", 1},
        // D-Bus-activatable entries.
        {"ActivatableWorkBrowser", "", "dbus", true, kWorkUrl, {kHosted, kLaunched}, "com.velora.velorabrowser", 1},
        {"ActivatableNonWork", kDbusPersonal, "", true, kOtherUrl, {kFound, kLaunched}, "org.example.Personal", 1},
        {"UnservedActivatable", "file://$HOME/org.example.Unserved.desktop", "", true, kOtherUrl,
         {kFound, kFirstFailed}, kWork, 1},
        // One that takes the URL and never answers is waited for briefly, and not asked again: it may still open it.
        {"MuteWorkBrowser", "", "mute", true, kWorkUrl, {kHosted, kNoAnswer}, "com.velora.velorabrowser", 1},
        {"MuteWorkBrowserInTheRetry", "file://$HOME/readme.txt", "mute", true, kOtherUrl,
         {kFound, kFirstFailed, kNoAnswer}, "com.velora.velorabrowser", 1},
        // No file opened may block: a FIFO is skipped where the work browser's entry is looked for, fails as an entry.
        {"FifoWorkEntry", "", "fifo", false, kWorkUrl, {kHosted, kLaunched}, kWork, 1},
        {"FifoNonWorkEntry", "file://$HOME/fifo.desktop", "", false, kOtherUrl, {kFound, kFirstFailed}, kWork, 1},
        // Browsers that would start the dispatcher again, recognised before anything starts.
        {"OwnProgram", "file://" CORVANE_DISPATCHER_BINARY, "", false, kOtherUrl, kRefused, kWork, 1},
        {"LinkToIt", "file://$HOME/bin/linked", "", false, kOtherUrl, kRefused, kWork, 1},
        {"WrapperNamingIt", "file://$HOME/bin/exec-wrapper", "", false, kOtherUrl, kRefused, kWork, 1},
        {"WrapperNamingItByName", "file://$HOME/bin/name-wrapper", "", false, kOtherUrl, kRefused, kWork, 1},
        {"EntryRunningIt", "file://$HOME/runs-us.desktop", "", false, kOtherUrl, kRefused, kWork, 1},
        {"EntryOfOurName", "file://$HOME/com.halvard.corvane.dispatcher.desktop", "", false, kOtherUrl, kRefused, kWork,
         1},
        {"WorkEntryRunningIt", "", "$D", false, kWorkUrl, kNoWorkBrowser, "", 1},
        // Not recognised: the dispatcher it starts sees the mark of the launch and routes no further.
        {"Wrapper", "file://$HOME/bin/wrapper", "", false, kOtherUrl, kWrapped, kWork, 2},
        {"WrapperWithBus", "file://$HOME/bin/wrapper", "", true, kOtherUrl, kWrapped, kWork, 1},
        {"WorkEntryWrapper", "", "wrapper", false, kWorkUrl, kWorkWrapped, "", 3},
        // Copies of the dispatcher as both browsers: each honours the other's mark.
        {"Copies", "file://$HOME/bin/copyB", "copyA", false, kOtherUrl,
         {kFound, kLaunched, kLoop, kLaunched, kWorkLoop, kFirstFailed, kRetryFailed}, "", 3},
    }),
    [](const ::testing::TestParamInfo<Route>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace corvane_test
