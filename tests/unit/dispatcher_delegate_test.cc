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

// Records each request with the counter it saw and completes it on a thread of its own once released; opens in
// "file:///" fail. Read `requests` only while no completion runs.
class ScriptedWorkspace : public Workspace {
 public:
  bool can_open = true, hold = true;
  AppDelegate* delegate = nullptr;
  int lookups = 0;
  std::vector<std::pair<std::string, int32_t>> requests;

  bool CanOpenUrls() override { return can_open; }
  std::optional<Url> WorkBrowserLocation() override { ++lookups; return kWorkBrowser; }
  bool StartsThisDispatcher(const Url&) override { return false; }
  void OpenUrl(const Url&, const std::optional<Url>& application, Completion done) override {
    std::lock_guard<std::mutex> lock(mutex_);
    requests.emplace_back(application ? application->spec : "", delegate->launchCounter());
    held_.emplace_back(std::move(done), requests.back().first != "file:///");
    if (!hold) ReleaseLocked();
  }
  void Release() {
    std::lock_guard<std::mutex> lock(mutex_);
    hold = false;
    ReleaseLocked();
  }
  void WaitForCompletions() {  // completions may start retries, which count before their first ends
    while (running_ > 0) std::this_thread::sleep_for(1ms);
  }

 private:
  void ReleaseLocked() {
    for (auto& [done, succeeded] : held_) {
      ++running_;
      auto delay = std::chrono::microseconds(++released_ * 7919 % 2000);  // in no particular order
      std::thread([this, done = std::move(done), succeeded = succeeded, delay] {
        std::this_thread::sleep_for(delay);
        done(succeeded);
        --running_;
      }).detach();
    }
    held_.clear();
  }

  std::mutex mutex_;
  int released_ = 0;
  std::atomic<int> running_{0};
  std::vector<std::pair<Completion, bool>> held_;
};

class AppDelegateTest : public ::testing::Test, public ApplicationShell {
 protected:
  AppDelegateTest() {
    workspace_.delegate = &delegate_;
    delegate_.setPolicyUrls(PolicyRules{{true, {{true, "*.corp.test/*"}}}});
  }
  ~AppDelegateTest() override {  // the termination worker must be done before the delegate goes
    if (delegate_.isDispatcherTerminating()) {
      workspace_.Release();
      EXPECT_TRUE(WaitForTermination(30s));
    }
    workspace_.WaitForCompletions();
  }
  void Terminate() override {
    terminated_at_ = Clock::now();
    ++terminations_;  // publishes terminated_at_
  }
  bool WaitForTermination(std::chrono::milliseconds limit) {
    for (auto end = Clock::now() + limit; terminations_ == 0 && Clock::now() < end;) std::this_thread::sleep_for(5ms);
    return terminations_ > 0;
  }
  size_t Count(const std::string& message) {
    std::vector<corvane_test::Line> lines = log_.lines();
    return std::count_if(lines.begin(), lines.end(), [&](auto& line) { return line.message == message; });
  }

  corvane_test::LogCapture log_;
  ScriptedWorkspace workspace_;
  std::atomic<int> terminations_{0};
  Clock::time_point terminated_at_;
  AppDelegate delegate_{workspace_, *this};
};

TEST_F(AppDelegateTest, EachUrlIsCountedBeforeItsOpenFailuresAreRetriedInTheWorkBrowserAndTheEndWaitsForTheLast) {
  delegate_.setNonWorkBrowserPath("file:///");  // exists, but fails to open
  std::vector<Url> urls;
  for (int i = 0; i < 150; ++i) urls.push_back("https://h" + std::to_string(i) + (i % 3 ? ".example/" : ".corp.test/"));
  auto start = Clock::now();
  delegate_.applicationOpenURLs(urls);
  delegate_.applicationOpenURLs({"https://example.org/"});  // while the first is pending: no second end
  const auto& requests = workspace_.requests;
  ASSERT_EQ(requests.size(), 151u);
  for (int i = 0; i < 151; ++i) EXPECT_EQ(requests[i].second, i + 1);
  EXPECT_EQ(workspace_.lookups, 151) << "looked up afresh for every URL";

  EXPECT_FALSE(WaitForTermination(2600ms));
  auto released = Clock::now();
  workspace_.Release();
  ASSERT_TRUE(WaitForTermination(30s));
  EXPECT_GE(terminated_at_ - start, 2s);
  EXPECT_GE(terminated_at_, released);
  workspace_.WaitForCompletions();
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(terminations_, 1);
  EXPECT_EQ(delegate_.launchCounter(), 0);
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
