// What the real binary cannot show: the counter at each open request, held
// completions, and many completions racing on threads of their own.
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

constexpr char kWorkBrowser[] = "file:///work-browser.desktop";
constexpr char kLaunched[] = "Launched browser successfully.";

struct OpenRequest {
  std::optional<std::string> application;
  int32_t counter;
};

// Records each request and completes it on a thread of its own, at once or
// once released; opens in `failing` fail. Read `requests` only while no
// completion runs.
class ScriptedWorkspace : public Workspace {
 public:
  bool can_open = true;
  bool hold = false;
  std::string failing = "none";
  AppDelegate* delegate = nullptr;
  int lookups = 0;
  std::vector<OpenRequest> requests;

  bool CanOpenUrls() override { return can_open; }
  std::optional<Url> WorkBrowserLocation() override { ++lookups; return kWorkBrowser; }
  bool StartsThisDispatcher(const Url&) override { return false; }
  void OpenUrl(const Url&, const std::optional<Url>& application, Completion done) override {
    std::lock_guard<std::mutex> lock(mutex_);
    std::optional<std::string> name;
    if (application) name = application->spec;
    requests.push_back({name, delegate->launchCounter()});
    held_.emplace_back(std::move(done), name != failing);
    if (!hold) ReleaseLocked();
  }
  void Release() {
    std::lock_guard<std::mutex> lock(mutex_);
    hold = false;
    ReleaseLocked();
  }
  // Completions may start retries, which count before their first ends.
  void WaitForCompletions() {
    while (running_ > 0) std::this_thread::sleep_for(1ms);
  }

 private:
  void ReleaseLocked() {
    for (auto& [done, succeeded] : held_) {
      ++running_;
      auto delay = std::chrono::microseconds(++released_ * 7919 % 2000);
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
  ~AppDelegateTest() override {
    // The termination worker must be done before the delegate goes.
    if (delegate_.isDispatcherTerminating()) {
      workspace_.Release();
      EXPECT_TRUE(WaitForTermination(30s));
    }
    workspace_.WaitForCompletions();
  }

  void Terminate() override {
    terminated_at_ = std::chrono::steady_clock::now();
    ++terminations_;  // publishes terminated_at_
  }
  bool WaitForTermination(std::chrono::milliseconds limit) {
    auto end = std::chrono::steady_clock::now() + limit;
    while (terminations_ == 0 && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(5ms);
    return terminations_ > 0;
  }

  int Count(const std::string& message) {
    std::vector<std::string> all = log_.messages();
    return static_cast<int>(std::count(all.begin(), all.end(), message));
  }

  corvane_test::LogCapture log_;
  ScriptedWorkspace workspace_;
  std::atomic<int> terminations_{0};
  std::chrono::steady_clock::time_point terminated_at_;
  AppDelegate delegate_{workspace_, *this};
};

TEST_F(AppDelegateTest, EachUrlIsCountedBeforeItsOwnOpenAndTheEndWaitsForTheLast) {
  workspace_.hold = true;
  auto start = std::chrono::steady_clock::now();
  delegate_.applicationOpenURLs({"https://a.corp.test/", "https://b.corp.test/x", "https://c.corp.test/"});
  // A second delivery while the first is pending schedules no second end.
  delegate_.applicationOpenURLs({"https://example.org/"});
  const std::vector<OpenRequest>& requests = workspace_.requests;
  ASSERT_EQ(requests.size(), 4u);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(requests[i].counter, i + 1);
    EXPECT_EQ(requests[i].application, kWorkBrowser);
  }
  EXPECT_EQ(workspace_.lookups, 4) << "looked up afresh for every URL";

  EXPECT_FALSE(WaitForTermination(2600ms));
  auto released = std::chrono::steady_clock::now();
  workspace_.Release();
  ASSERT_TRUE(WaitForTermination(10s));
  EXPECT_GE(terminated_at_ - start, 2s);
  EXPECT_GE(terminated_at_, released);
  workspace_.WaitForCompletions();
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(terminations_, 1);
  EXPECT_EQ(delegate_.launchCounter(), 0);
  EXPECT_EQ(Count(kLaunched), 4);
}

TEST_F(AppDelegateTest, CounterReachesZeroOnceEveryLastAttemptHasCompletedOnAnyThread) {
  delegate_.setNonWorkBrowserPath("file:///");  // exists, but fails to open
  workspace_.failing = "file:///";
  std::vector<Url> urls;
  for (int i = 0; i < 150; ++i) urls.push_back("https://h" + std::to_string(i) + (i % 3 ? ".example/" : ".corp.test/"));
  delegate_.applicationOpenURLs(urls);
  ASSERT_TRUE(WaitForTermination(30s));
  workspace_.WaitForCompletions();
  EXPECT_EQ(delegate_.launchCounter(), 0);
  // 50 work URLs open once; 100 others fail once and are retried, in the work browser.
  const std::vector<OpenRequest>& requests = workspace_.requests;
  EXPECT_EQ(requests.size(), 250u);
  int in_work_browser = 0;
  for (const OpenRequest& request : requests) in_work_browser += request.application == kWorkBrowser;
  EXPECT_EQ(in_work_browser, 150);
  EXPECT_EQ(Count(kLaunched), 50);
  EXPECT_EQ(Count("Failed to launch URL, will try to launch URL again in work browser."), 100);
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
