// What the real binary cannot show: the counter at each open request, held completions, and many completions racing
// on threads of their own.
#include "dispatcher/dispatcher_delegate.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/log_capture.h"

namespace dispatcher {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr char kWorkBrowser[] = "file:///work-browser.desktop";

// Records each request with the counter it saw and, once released, completes it on a thread of its own, in no
// particular order; opens in "file:///" fail. Read `requests` only while no completion runs.
class ScriptedWorkspace : public Workspace, public ApplicationShell {
 public:
  explicit ScriptedWorkspace(const AppDelegate& delegate) : delegate_(delegate) {}
  ~ScriptedWorkspace() override {  // the termination worker must be done before the delegate goes
    Release();
    for (auto end = Clock::now() + 30s; (running_ > 0 || (delegate_.isDispatcherTerminating() && !terminations)) &&
                                        Clock::now() < end;)
      std::this_thread::sleep_for(1ms);
  }
  bool CanOpenUrls() override { return can_open; }
  std::optional<Url> WorkBrowserLocation() override { ++lookups; return kWorkBrowser; }
  bool StartsThisDispatcher(const Url&) override { return false; }
  void OpenUrl(const Url&, const std::optional<Url>& application, Completion done) override {
    std::lock_guard<std::mutex> lock(mutex_);
    requests.emplace_back(application ? application->spec : "", delegate_.launchCounter());
    held_.emplace_back(std::move(done), requests.back().first != "file:///");
    if (!hold_) ReleaseLocked();
  }
  void Terminate() override {
    terminated_at = Clock::now();
    ++terminations;  // publishes terminated_at
  }
  void RunOnMainThread(std::function<void()> task, std::chrono::milliseconds delay) override {
    std::this_thread::sleep_for(delay);
    task();
  }
  void Release() {
    std::lock_guard<std::mutex> lock(mutex_);
    hold_ = false;
    ReleaseLocked();
  }
  bool WaitForTermination(std::chrono::milliseconds limit) {
    for (auto end = Clock::now() + limit; terminations == 0 && Clock::now() < end;) std::this_thread::sleep_for(5ms);
    return terminations > 0;
  }

  bool can_open = true;
  int lookups = 0;
  std::vector<std::pair<std::string, int32_t>> requests;  // application, counter
  std::atomic<int> terminations{0}, running_{0};  // completions may start retries, which count before their first ends
  Clock::time_point terminated_at;

 private:
  void ReleaseLocked() {
    for (auto& [done, succeeded] : held_) {
      ++running_;
      std::thread([this, done = std::move(done), ok = succeeded, delay = ++released_ * 7919 % 2000] {
        std::this_thread::sleep_for(std::chrono::microseconds(delay));
        done(ok ? Outcome::kStarted : Outcome::kFailed);
        --running_;
      }).detach();
    }
    held_.clear();
  }

  const AppDelegate& delegate_;
  std::mutex mutex_;
  bool hold_ = true;
  int released_ = 0;
  std::vector<std::pair<Completion, bool>> held_;
};

class AppDelegateTest : public ::testing::Test {
 protected:
  AppDelegateTest() { delegate_.setPolicyUrls(PolicyRules{{true, {{true, "*.corp.test/*"}}}}); }
  size_t Count(const std::string& message) {
    std::vector<corvane_test::Line> lines = log_.lines();
    return std::count_if(lines.begin(), lines.end(), [&](auto& line) { return line.message == message; });
  }

  corvane_test::LogCapture log_;
  AppDelegate delegate_{workspace_, workspace_};
  ScriptedWorkspace workspace_{delegate_};
};

TEST_F(AppDelegateTest, EachUrlIsCountedBeforeItsOpenFailuresAreRetriedInTheWorkBrowserAndTheEndWaitsForTheLast) {
  delegate_.setNonWorkBrowserPath("file:///");  // exists, but fails to open
  std::vector<Url> urls;
  for (int i = 0; i < 150; ++i) urls.push_back("https://h" + std::to_string(i) + (i % 3 ? ".example/" : ".corp.test/"));
  auto start = Clock::now();
  std::vector<std::atomic<int>> handed(urls.size());
  delegate_.applicationOpenURLs(urls, DeliveryOrigin::kDirect, [&](size_t i) { ++handed.at(i); });
  delegate_.applicationOpenURLs({"https://example.org/"});  // while the first is pending: no second end
  // A signal now: what the shell still held, then every URL handed out, in order.
  delegate_.applicationWillTerminateOnSignal("SIGTERM", {"https://held.example/"});
  std::vector<Url> unhanded = {"https://held.example/"};
  unhanded.insert(unhanded.end(), urls.begin(), urls.end());
  unhanded.push_back("https://example.org/");
  EXPECT_EQ(log_.lines().back(), corvane_test::Error("Ending on SIGTERM before these urls were handed to a browser - " +
                                                     delegate_.convertUrlArrayToString(unhanded)));
  const auto& requests = workspace_.requests;
  ASSERT_EQ(requests.size(), 151u);
  for (int i = 0; i < 151; ++i) EXPECT_EQ(requests[i].second, i + 1);
  EXPECT_EQ(workspace_.lookups, 151) << "looked up afresh for every URL";

  EXPECT_FALSE(workspace_.WaitForTermination(2600ms));
  auto released = Clock::now();
  workspace_.Release();
  ASSERT_TRUE(workspace_.WaitForTermination(30s));
  EXPECT_GE(workspace_.terminated_at - start, 2s);
  EXPECT_GE(workspace_.terminated_at, released);
  std::this_thread::sleep_for(300ms);
  while (workspace_.running_ > 0) std::this_thread::sleep_for(1ms);
  EXPECT_EQ(workspace_.terminations, 1);
  EXPECT_EQ(delegate_.launchCounter(), 0);
  for (const std::atomic<int>& times : handed) EXPECT_EQ(times, 1) << "each once, at its last attempt";
  delegate_.applicationWillTerminateOnSignal("SIGHUP", {});
  EXPECT_EQ(log_.lines().back(), corvane_test::Info("Ending on SIGHUP with no launch outstanding."));
  // 50 work URLs open once; 101 others fail once in the non-work browser and are retried, silently, in the work one.
  EXPECT_EQ(requests.size(), 252u);
  EXPECT_EQ(std::count_if(requests.begin(), requests.end(), [](auto& r) { return r.first == kWorkBrowser; }), 151);
  EXPECT_EQ(Count("Launched browser successfully."), 50u);
  EXPECT_EQ(Count("Failed to launch URL, will try to launch URL again in work browser."), 101u);
  EXPECT_EQ(Count("Failed to launch URL in work browser as well."), 0u);
}

TEST_F(AppDelegateTest, SystemThatCannotOpenKeepsTheCountAndClassifiesNothing) {
  workspace_.can_open = false;
  delegate_.raiseLaunchCounter();
  delegate_.launchBrowser("https://intra.corp.test/");
  EXPECT_TRUE(workspace_.requests.empty());
  EXPECT_EQ(delegate_.launchCounter(), 1);
  EXPECT_EQ(log_.lines(), std::vector<corvane_test::Line>{corvane_test::Error(
                              "Current macOS version is older than the minimum supported version (macOS 10.15)!")});
}

}  // namespace
}  // namespace dispatcher
