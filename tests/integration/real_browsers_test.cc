// Real Chromium and Firefox get their links through the installed dispatcher, the default browser of a private home,
// from xdg-open and gio, byte for byte as browsers send them (characters outside ASCII as upper-case percent-escapes
// of their UTF-8). Run with `ctest -L real-browsers`, which gives it a virtual display and a session bus. The
// dispatcher is the one under $CORVANE_INSTALLED_PREFIX (the package: /usr), else this build installed privately.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <mutex>
#include <thread>

#include "gtest/gtest.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace corvane_test {
namespace {

// Records "browser target" of each page it serves, one thread per connection: browsers open connections ahead that
// they may never use.
class RecordingServer {
 public:
  RecordingServer() {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), length) == 0 && listen(listener_, 64) == 0 &&
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) == 0)
      port = ntohs(address.sin_port);
    acceptor_ = std::thread([this] {
      for (pollfd p = {listener_, POLLIN, 0}; !stop_; p.revents = 0) {
        int fd = poll(&p, 1, 100) > 0 ? accept(listener_, nullptr, nullptr) : -1;
        if (fd >= 0) connections_.emplace_back([this, fd] { Serve(fd); });
      }
    });
  }
  ~RecordingServer() {
    stop_ = true;
    acceptor_.join();
    for (std::thread& connection : connections_) connection.join();
    close(listener_);
  }
  Strings Seen() {
    std::lock_guard<std::mutex> lock(mutex_);
    return seen_;
  }
  int port = 0;

 private:
  void Serve(int fd) {
    timeval timeout = {5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    std::string request, target;
    char buffer[65536];
    for (ssize_t n; request.find("\r\n\r\n") == std::string::npos && (n = read(fd, buffer, sizeof buffer)) > 0;)
      request.append(buffer, n);
    if (request.starts_with("GET ") && (target = request.substr(4, request.find(' ', 4) - 4)) != "/favicon.ico") {
      std::lock_guard<std::mutex> lock(mutex_);
      seen_.push_back((request.find("Firefox/") != std::string::npos ? "firefox " : "chromium ") + target);
    }
    constexpr char kResponse[] = "HTTP/1.1 200 OK\r\nContent-Length: 12\r\nConnection: close\r\n\r\n<p>page</p>\n";
    ssize_t ignored = write(fd, kResponse, sizeof kResponse - 1);
    (void)ignored;
    close(fd);
  }

  int listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::atomic<bool> stop_ = false;
  std::mutex mutex_;
  Strings seen_;
  std::vector<std::thread> connections_;  // only the acceptor adds to it
  std::thread acceptor_;
};

// Bytes outside ASCII as browsers send them; the rest as it is.
std::string AsSent(const std::string& text) {
  std::string sent;
  for (unsigned char c : text)
    sent += c < 0x80 ? std::string(1, c) : "%" + std::string{"0123456789ABCDEF"[c >> 4], "0123456789ABCDEF"[c & 15]};
  return sent;
}

// Browsers outlive the openers that started them and, as this process is their subreaper, become its children.
void EndDescendants() {
  for (bool any = true; any; usleep(any ? 100000 : 0)) {
    any = false;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      std::string stat = ReadFile(entry.path() / "stat");
      if (stat.empty() || atoi(stat.c_str() + stat.rfind(')') + 4) != getpid()) continue;
      kill(atoi(entry.path().filename().c_str()), SIGKILL);
      any = true;
    }
    while (waitpid(-1, nullptr, WNOHANG) > 0) {}
  }
}

TEST(RealBrowsersTest, LinksReachTheRightRealBrowserByteForByteThroughTheInstalledDispatcher) {
  for (const char* needed : {"DISPLAY", "DBUS_SESSION_BUS_ADDRESS"})
    ASSERT_TRUE(getenv(needed)) << "no " << needed << ": run it with ctest -L real-browsers";
  for (const char* program : {"/usr/bin/chromium", "/usr/bin/firefox-esr", "/usr/bin/xdg-open", "/usr/bin/gio"})
    ASSERT_EQ(access(program, X_OK), 0) << program << " is missing: scripts/install-deps.sh --desktop installs it";
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  TempDir dir;
  RecordingServer server;
  ASSERT_NE(server.port, 0);
  struct Reaper {  // first of all when the test ends, however it ends
    ~Reaper() { EndDescendants(); }
  } reaper;
  std::string home = dir.Child("home"), log = dir.Child("session.log");
  const char* installed = getenv("CORVANE_INSTALLED_PREFIX");
  std::string prefix = installed && *installed ? installed : dir.Child("usr");
  if (prefix == dir.Child("usr")) {
    ProcessResult install = RunProcess({CORVANE_CMAKE, "--install", CORVANE_BUILD_DIR, "--prefix", prefix});
    ASSERT_EQ(install.exit_code, 0) << install.out << install.err;
  }
  for (const char* folder : {"home/.config/Halvard/Corvane/logs", "home/.local/share/applications", "firefox"})
    ASSERT_TRUE(MakeDirectories(dir.Child(folder)));
  ASSERT_TRUE(MakeDirectories(dir.Child("run")) && chmod(dir.Child("run").c_str(), 0700) == 0);
  // Work URLs are those under /work/; Chromium is the work browser, Firefox the one for everything else.
  for (const auto& [path, text] : std::vector<std::pair<std::string, std::string>>{
           {home + "/.config/Halvard/Corvane/Local State",
            R"({"kel_prefs":{"policy":{"browser_urls":[{"patterns":["127.0.0.1/work/*"]}]}},)"
            R"("browser":{"browserPathForNonWorkLinks":"file://)" + home + R"(/firefox.desktop"}})"},
           {home + "/.local/share/applications/com.velora.velorabrowser.desktop",
            "[Desktop Entry]\nType=Application\nName=Work browser\nExec=/usr/bin/chromium --no-sandbox --disable-gpu "
            "--disable-quic --no-first-run --no-default-browser-check --disable-background-networking --disable-sync "
            "--disable-component-update --password-store=basic --user-data-dir=" + dir.Child("chromium") + " %U\n"},
           {home + "/firefox.desktop", "[Desktop Entry]\nType=Application\nName=Personal browser\n"
                                       "Exec=/usr/bin/firefox-esr --profile " + dir.Child("firefox") + " %u\n"},
           {dir.Child("firefox/user.js"), "user_pref(\"browser.shell.checkDefaultBrowser\", false);\n"
                                          "user_pref(\"datareporting.policy.firstRunURL\", \"\");\n"
                                          "user_pref(\"browser.aboutwelcome.enabled\", false);\n"}})
    ASSERT_TRUE(WriteFile(path, text));

  ProcessOptions options;
  options.clear_environment = true;  // a fresh session: no desktop named, so xdg-open reads the entries itself
  options.timeout_seconds = 30;
  options.env = {{"HOME", home}, {"PATH", prefix + "/bin:/usr/bin:/bin"}, {"LANG", "C.UTF-8"},
                 {"XDG_DATA_DIRS", prefix + "/share:/usr/share"}, {"XDG_RUNTIME_DIR", dir.Child("run")}};
  for (const char* passed : {"DISPLAY", "XAUTHORITY", "DBUS_SESSION_BUS_ADDRESS"})
    if (getenv(passed)) options.env[passed] = getenv(passed);
  // Openers run with their output, and that of the browsers they start, appended to the session log.
  auto run = [&](Strings command) {
    command.insert(command.begin(), {"/bin/sh", "-c", "exec \"$@\" >>\"$0\" 2>&1", log});
    return RunProcess(command, options);
  };
  auto report = [&] {
    std::string text = ReadFile(log), arrived;
    for (const std::string& seen : server.Seen()) arrived += seen.substr(0, 200) + "\n";
    text = text.substr(text.size() - std::min(text.size(), 5000ul));
    return "Arrived so far:\n" + arrived + "End of the session log:\n" + text;
  };

  // The one-step registration, and the command that shows it.
  const std::string kEntry = "com.halvard.corvane.dispatcher.desktop";
  ASSERT_EQ(run({"/usr/bin/xdg-settings", "set", "default-web-browser", kEntry}).exit_code, 0) << report();
  ASSERT_EQ(RunProcess({"/usr/bin/xdg-settings", "get", "default-web-browser"}, options).out, kEntry + "\n");

  std::string base = "http://127.0.0.1:" + std::to_string(server.port);
  const std::string kAscii = "/a%20b/%2F%25%3F%00/semi;colon,plus+tilde~!$&'()*@:%41%7e?q=%26x%3D1&y=%C3%BC&z=+&e=&"
                             "s=`{}|^[]\\%zz";
  const std::string kUnicode = "/\xC3\xBC\xE6\x97\xA5\xE6\x9C\xAC/na\xC3\xAFve?q=\xE6\x97\xA5&r=\xC3\xBC";
  std::string long_query = "/work/long?";
  for (int i = 0; long_query.size() < 6000; ++i) long_query += "&k" + std::to_string(i) + "=v%2F" + std::to_string(i);
  // The opener and its URLs. Each delivery waits for the last, so later ones find the browsers running: a second
  // start of either browser on the same profile hands its URL to the running one or opens nothing.
  Strings expected;
  for (const Strings& delivery : std::vector<Strings>{
           {"/usr/bin/xdg-open", base + "/work" + kAscii + "#top%20of/page?x"},
           {"/usr/bin/gio", "open", base + "/home" + kUnicode + "#\xC3\xBC-section"},
           {"/usr/bin/gio", "open", base + "/work" + kUnicode},
           {"/usr/bin/gio", "launch", prefix + "/share/applications/" + kEntry, base + "/work/several?n=1#one",
            base + "/home/several?n=2", base + long_query}}) {
    SCOPED_TRACE(delivery[0] + " " + delivery[1]);
    for (const std::string& url : delivery) {
      if (url.starts_with(base))  // a fragment never reaches the server
        expected.push_back((url.starts_with(base + "/work/") ? "chromium " : "firefox ") +
                           AsSent(url.substr(base.size(), url.find('#') - base.size())));
    }
    ProcessResult opened = run(delivery);
    ASSERT_TRUE(opened.exited && opened.exit_code == 0) << report();
    // A browser that cannot start is reported with what the session printed, never waited for without end.
    for (int i = 0; i < 600 && server.Seen().size() < expected.size(); ++i) usleep(100000);
    ASSERT_GE(server.Seen().size(), expected.size()) << report();
  }
  Strings seen = server.Seen();
  std::sort(seen.begin(), seen.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(seen, expected);
  std::string dispatcher_log = ReadFile(home + "/.config/Halvard/Corvane/logs/CorvaneDispatcher_debug.log");
  EXPECT_EQ(dispatcher_log.find(":ERROR:"), std::string::npos) << dispatcher_log;
}

}  // namespace
}  // namespace corvane_test
