// The real dispatcher in a private home (tests/support/dispatcher_home.h): its log, launches, deliveries and loops.
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "tests/support/dispatcher_home.h"

namespace corvane_test {
namespace {

class DispatcherTest : public DispatcherHome {
 protected:
  void SetUp() override {
    DispatcherHome::SetUp();
    ASSERT_TRUE(WriteFile(Home("readme.txt"), "touch '" + Home("ran") + "'\n", 0755));  // if a shell ran it
  }
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
      // Whatever the scheme, the location's path is what must exist; only a local file can be started.
      {"https://example.com$HOME/B%20100%25/other%20browser", kOtherUrl, "work browser", {kFound, kFirstFailed}},
      // Not startable: retried in the work browser, silently when that works.
      {"file://$HOME/readme.txt", kOtherUrl, "work browser", {kFound, kFirstFailed}},
      {"file://$HOME/removed%20browser.desktop", kOtherUrl, "work browser", {kFound, kFirstFailed}},
      {"", kWorkUrl, "", {kHosted, kFirstFailed, kRetryFailed}}};
  for (const auto& [non_work, url, browser, messages] : kScenarios) {
    SCOPED_TRACE(non_work + " " + url);
    WriteLocalState(non_work);
    ASSERT_TRUE(!browser.empty() || unlink(work_entry_.c_str()) == 0);
    EXPECT_EQ(Messages(Run({url}, Options()).err, true), messages);
    std::vector<BrowserRecord> records = Records(!browser.empty());
    EXPECT_EQ(records.size(), !browser.empty());
    for (auto& r : records) EXPECT_EQ(r.name + ": " + r.args.at(0) + " " + r.env["GIO_USE_VFS"], browser + ": " + url + " gvfs");
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

TEST_F(DispatcherTest, SecondDeliveryIsHandledByTheRunningDispatcherAndTheForwarderLeavesTheLogAlone) {
  if (access("/usr/bin/dbus-run-session", X_OK) != 0) GTEST_SKIP() << "needs dbus-run-session";
  ProcessOptions options = Options();
  options.env.insert({{"D", CORVANE_DISPATCHER_BINARY}, {"F", CORVANE_FAKE_CLOCK_LIBRARY}});
  // The second starts while the first waits out its shutdown; handling its own delivery, it would launch too. Its
  // clock is 97 hours ahead: running the start-up, it would take the first one's log for expired and delete it.
  ProcessResult result = RunProcess({"/usr/bin/dbus-run-session", "--", "/bin/sh", "-c",
                                     "$D https://a.example/ & sleep 1; LD_PRELOAD=$F CORVANE_FAKE_CLOCK_OFFSET_SECONDS="
                                     "349200 $D https://b.example/ https://c.example/; echo $?; wait $!; echo $?"},
                                    options);
  EXPECT_EQ(result.out, "0\n0\n") << result.err;
  Strings messages = Messages(ReadFile(log_file_));
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.front(), kBanner);
  EXPECT_EQ(messages.back(), kTerminated);
  for (auto [message, count] : {std::pair<std::string, size_t>(kLaunched, 3), {kBanner, 1}, {kTerminated, 1},
                                {"Dispatcher Application is launching.", 1},
                                {"Corvane Dispatcher received urls - [ https://b.example/, https://c.example/ ]", 1}})
    EXPECT_EQ(Count(messages, message), count) << message;
  EXPECT_EQ(Records(3).size(), 3u);
}

// Browsers that start the dispatcher again. Each loop ends within seconds with the URL in the work browser (when it is
// a browser), having started no more dispatchers than the table allows.
struct LoopCase {
  const char* name;
  std::string non_work;   // the non-work browser's location
  std::string work_exec;  // the work browser entry's program when it is not the stand-in browser
  bool bus;               // a session bus: later dispatchers hand their delivery to the first
  Strings lines;          // the launchers' lines of all dispatchers, sorted
  size_t wrapped;         // dispatchers started through the counting wrapper, which they are not told about
  size_t banners;         // dispatchers that started up; those that hand their delivery on do not
};

void PrintTo(const LoopCase& c, std::ostream* out) { *out << c.name; }

class LoopTest : public DispatcherHome, public ::testing::WithParamInterface<LoopCase> {
 protected:
  void SetUp() override {
    DispatcherHome::SetUp();
    ASSERT_TRUE(MakeDirectories(Home("bin")));
    ASSERT_EQ(symlink(CORVANE_DISPATCHER_BINARY, Home("bin/linked").c_str()), 0);
    const std::string count = "echo start >> \"$HOME/dispatchers\"\n";
    ASSERT_TRUE(WriteFile(Home("bin/wrapper"), "#!/bin/sh\n" + count + "\"$D\" \"$@\"\necho end >> \"$HOME/dispatchers\"\n", 0755));
    ASSERT_TRUE(WriteFile(Home("bin/exec-wrapper"), "#!/bin/sh\n" + count + "exec '" CORVANE_DISPATCHER_BINARY "' \"$@\"\n", 0755));
    for (auto [entry, program] : {std::pair<std::string, std::string>("runs-us", CORVANE_DISPATCHER_BINARY),
                                  {"com.halvard.corvane.dispatcher", Home("Entry/other browser")}})
      ASSERT_TRUE(WriteFile(Home(entry + ".desktop"), "[Desktop Entry]\nType=Application\nExec=\"" + program + "\" %u\n"));
  }
  // How many lines of the counting wrapper's file are `line`.
  size_t Wrapped(const std::string& line) {
    std::istringstream in(ReadFile(Home("dispatchers")));
    size_t n = 0;
    for (std::string read; std::getline(in, read);) n += read == line;
    return n;
  }
};

TEST_P(LoopTest, EndsWithinSecondsWithTheUrlInTheWorkBrowser) {
  const LoopCase& c = GetParam();
  WriteLocalState(c.non_work);
  std::string work_exec = c.work_exec == "wrapper" ? Home("bin/wrapper") : c.work_exec;
  if (!work_exec.empty()) {
    ASSERT_TRUE(WriteFile(work_entry_, "[Desktop Entry]\nType=Application\nExec=\"" + work_exec + "\" %u\n"));
  }
  ProcessOptions options = Options();
  options.env["D"] = CORVANE_DISPATCHER_BINARY;
  std::string url = c.non_work.empty() ? kWorkUrl : kOtherUrl;
  ProcessResult result = c.bus ? RunProcess({"/usr/bin/dbus-run-session", "--", CORVANE_DISPATCHER_BINARY, url}, options)
                               : Run({url}, options);
  EXPECT_TRUE(result.exited && result.exit_code == 0) << result.err;

  // The dispatchers of the loop end by themselves; whatever still runs after the wait is killed with the group.
  auto count = [&](const std::string& text, const char* line) { return Count(Messages(text), line); };
  auto ended = [&] {
    std::string log = ReadFile(log_file_);
    return count(log, kBanner) == count(log, kTerminated) && Wrapped("start") == Wrapped("end");
  };
  for (int i = 0; i < 400 && !ended(); ++i) usleep(25000);
  EXPECT_TRUE(ended());
  kill(-result.pid, SIGKILL);

  std::string log = ReadFile(log_file_);
  Strings lines = Messages(log, true);
  std::sort(lines.begin(), lines.end());
  Strings expected = c.lines;
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(lines, expected);
  EXPECT_EQ(Wrapped("start"), c.wrapped);
  EXPECT_EQ(count(log, kBanner), c.banners);
  EXPECT_EQ(Received(work_exec.empty()), work_exec.empty() ? Strings{"work browser: " + url} : Strings{});
}

const Strings kRefused = {kIsDispatcher, kNotFound, kLaunched};
INSTANTIATE_TEST_SUITE_P(
    Loops, LoopTest,
    ::testing::ValuesIn(std::vector<LoopCase>{
        // Recognised before anything starts: no dispatcher more.
        {"OwnProgram", std::string("file://") + CORVANE_DISPATCHER_BINARY, "", false, kRefused, 0, 1},
        {"LinkToIt", "file://$HOME/bin/linked", "", false, kRefused, 0, 1},
        {"WrapperNamingIt", "file://$HOME/bin/exec-wrapper", "", false, kRefused, 0, 1},
        {"EntryRunningIt", "file://$HOME/runs-us.desktop", "", false, kRefused, 0, 1},
        {"EntryOfOurName", "file://$HOME/com.halvard.corvane.dispatcher.desktop", "", false, kRefused, 0, 1},
        {"WorkEntryRunningIt", "", CORVANE_DISPATCHER_BINARY, false, {kHosted, kFirstFailed, kRetryFailed}, 0, 1},
        // Not recognised: the dispatcher it starts sees the mark and routes no further.
        {"Wrapper", "file://$HOME/bin/wrapper", "", false, {kFound, kLaunched, kLoop, kLaunched}, 1, 2},
        {"WrapperWithBus", "file://$HOME/bin/wrapper", "", true, {kFound, kLaunched, kLoop, kLaunched}, 1, 1},
        {"WorkEntryWrapper", "", "wrapper", false,
         {kHosted, kLaunched, kLoop, kLaunched, kWorkLoop, kFirstFailed, kRetryFailed}, 2, 3},
        {"WorkEntryWrapperWithBus", "", "wrapper", true,
         {kHosted, kLaunched, kLoop, kLaunched, kWorkLoop, kFirstFailed, kRetryFailed}, 2, 1},
    }),
    [](const ::testing::TestParamInfo<LoopCase>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace corvane_test
