// The delegate's intake, launching and shutdown against a scripted
// workspace whose completions arrive on threads of their own.
#include "dispatcher/dispatcher_delegate.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/logging.h"
#include "gtest/gtest.h"
#include "tests/support/temp_dir.h"

namespace {

using dispatcher::AppDelegate;
using dispatcher::PolicyPattern;
using dispatcher::PolicyRule;
using dispatcher::PolicyRules;

constexpr char kWorkBrowser[] = "file:///apps/work-browser.desktop";

std::mutex g_lines_lock;
std::vector<std::string>* g_lines = nullptr;

bool CaptureMessage(int, const char*, int, size_t start, const std::string& line) {
  std::lock_guard<std::mutex> lock(g_lines_lock);
  if (g_lines) g_lines->push_back(line.substr(start, line.size() - start - 1));
  return true;
}

struct OpenRequest {
  std::string url;
  std::optional<std::string> application;
  int32_t counter_at_call;
};

// Opens nothing: records each request and completes it on a new thread,
// failing for the applications it is told to fail for.
class ScriptedWorkspace : public dispatcher::Workspace {
 public:
  bool can_open = true;
  std::optional<std::string> work_browser = std::string(kWorkBrowser);
  std::map<std::string, std::string> paths;  // location -> path
  std::vector<std::string> failing;          // applications whose opens fail
  bool hold_completions = false;              // keep completions until Release()
  AppDelegate* delegate = nullptr;
  std::mt19937 random{12345};

  bool CanOpenUrls() override { return can_open; }
  std::optional<std::string> WorkBrowserLocation() override {
    ++work_browser_lookups;
    return work_browser;
  }
  std::optional<std::string> PathOfLocation(const std::string& location) override {
    auto it = paths.find(location);
    if (it == paths.end()) return std::nullopt;
    return it->second;
  }
  void OpenUrl(const std::string& url, const std::optional<std::string>& application,
               Completion completion) override {
    bool succeeded = application.has_value();
    for (const auto& f : failing) succeeded = succeeded && *application != f;
    std::unique_lock<std::mutex> lock(lock_);
    requests.push_back({url, application, delegate ? delegate->launchCounter() : 0});
    if (hold_completions) {
      held_.emplace_back(std::move(completion), succeeded);
      return;
    }
    int delay_us = static_cast<int>(random() % 2000);
    lock.unlock();
    Spawn([completion, succeeded, delay_us] {
      std::this_thread::sleep_for(std::chrono::microseconds(delay_us));
      completion(succeeded);
    });
  }

  void Release() {
    std::vector<std::pair<Completion, bool>> held;
    {
      std::lock_guard<std::mutex> lock(lock_);
      held.swap(held_);
      hold_completions = false;
    }
    for (auto& [completion, succeeded] : held) {
      Spawn([completion = std::move(completion), succeeded = succeeded] { completion(succeeded); });
    }
  }

  std::vector<OpenRequest> Requests() {
    std::lock_guard<std::mutex> lock(lock_);
    return requests;
  }

  void JoinAll() {
    for (;;) {
      std::vector<std::thread> threads;
      {
        std::lock_guard<std::mutex> lock(lock_);
        threads.swap(threads_);
      }
      if (threads.empty()) return;
      for (auto& t : threads) t.join();
    }
  }

  std::atomic<int> work_browser_lookups{0};

 private:
  void Spawn(std::function<void()> task) {
    std::lock_guard<std::mutex> lock(lock_);
    threads_.emplace_back(std::move(task));
  }

  std::mutex lock_;
  std::vector<OpenRequest> requests;
  std::vector<std::pair<Completion, bool>> held_;
  std::vector<std::thread> threads_;
};

class RecordingShell : public dispatcher::ApplicationShell {
 public:
  void Terminate() override {
    std::lock_guard<std::mutex> lock(lock_);
    ++terminations_;
    terminated_at_ = std::chrono::steady_clock::now();
    changed_.notify_all();
  }
  bool WaitForTermination(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(lock_);
    return changed_.wait_for(lock, limit, [&] { return terminations_ > 0; });
  }
  int terminations() {
    std::lock_guard<std::mutex> lock(lock_);
    return terminations_;
  }
  std::chrono::steady_clock::time_point terminated_at() {
    std::lock_guard<std::mutex> lock(lock_);
    return terminated_at_;
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  int terminations_ = 0;
  std::chrono::steady_clock::time_point terminated_at_;
};

PolicyRules WorkPatterns(std::vector<std::string> patterns) {
  PolicyRule rule;
  rule.has_patterns = true;
  for (auto& p : patterns) rule.patterns.push_back(PolicyPattern{true, p});
  return {rule};
}

class AppDelegateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    {
      std::lock_guard<std::mutex> lock(g_lines_lock);
      g_lines = &lines_;
    }
    logging::SetLogMessageHandler(&CaptureMessage);
    logging::SetMinimumLogLevel(-1);
    workspace_.delegate = &delegate_;
    delegate_.setPolicyUrls(WorkPatterns({"*.corp.test/*"}));
  }
  void TearDown() override {
    // The termination worker, if started, must end before the delegate goes.
    if (delegate_.isDispatcherTerminating()) {
      workspace_.Release();
      EXPECT_TRUE(shell_.WaitForTermination(std::chrono::seconds(30)));
    }
    workspace_.JoinAll();
    logging::SetLogMessageHandler(nullptr);
    std::lock_guard<std::mutex> lock(g_lines_lock);
    g_lines = nullptr;
  }

  std::vector<std::string> Lines() {
    std::lock_guard<std::mutex> lock(g_lines_lock);
    return lines_;
  }
  int Count(const std::string& line) {
    int n = 0;
    for (const auto& l : Lines()) n += l == line;
    return n;
  }

  std::vector<std::string> lines_;
  ScriptedWorkspace workspace_;
  RecordingShell shell_;
  AppDelegate delegate_{workspace_, shell_};
};

TEST_F(AppDelegateTest, FormatsTheUrlListForTheLog) {
  EXPECT_EQ(delegate_.convertUrlArrayToString({}), "[  ]");
  EXPECT_EQ(delegate_.convertUrlArrayToString({"a"}), "[ a ]");
  EXPECT_EQ(delegate_.convertUrlArrayToString({"a", "b", "c"}), "[ a, b, c ]");
}

TEST_F(AppDelegateTest, EachUrlIsCountedBeforeItsLaunchAndOpenedAlone) {
  workspace_.hold_completions = true;
  delegate_.applicationOpenURLs({"https://a.corp.test/", "https://b.corp.test/x", "https://c.corp.test/"});
  std::vector<OpenRequest> requests = workspace_.Requests();
  ASSERT_EQ(requests.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(requests[i].counter_at_call, i + 1);
    EXPECT_EQ(requests[i].application, std::optional<std::string>(kWorkBrowser));
  }
  EXPECT_EQ(requests[1].url, "https://b.corp.test/x");
  EXPECT_EQ(delegate_.launchCounter(), 3);
  EXPECT_EQ(workspace_.work_browser_lookups, 3) << "looked up afresh for every URL";
  EXPECT_EQ(Lines().front(),
            "Corvane Dispatcher received urls - [ https://a.corp.test/, https://b.corp.test/x, https://c.corp.test/ ]");
  EXPECT_EQ(Count("It is a hosted app url. Launching url in work browser."), 3);
  workspace_.Release();
  workspace_.JoinAll();
  EXPECT_EQ(delegate_.launchCounter(), 0);
  EXPECT_EQ(Count("Launched browser successfully."), 3);
}

TEST_F(AppDelegateTest, NonWorkUrlGoesToThePresentNonWorkBrowser) {
  corvane_test::TempDir dir;
  ASSERT_TRUE(corvane_test::WriteFile(dir.Child("personal"), "#!/bin/sh\n", 0755));
  delegate_.setNonWorkBrowserPath("file:///personal");
  workspace_.paths["file:///personal"] = dir.Child("personal");
  delegate_.launchBrowser("https://example.org/");
  workspace_.JoinAll();
  ASSERT_EQ(workspace_.Requests().size(), 1u);
  EXPECT_EQ(workspace_.Requests()[0].application, std::optional<std::string>("file:///personal"));
  EXPECT_EQ(Count("Selected non-work browser found, will launch url in non-work browser."), 1);
}

TEST_F(AppDelegateTest, WorkUrlNeverTestsTheNonWorkBrowser) {
  delegate_.setNonWorkBrowserPath("file:///personal");
  delegate_.launchBrowser("https://intra.corp.test/");
  workspace_.JoinAll();
  ASSERT_EQ(workspace_.Requests().size(), 1u);
  EXPECT_EQ(workspace_.Requests()[0].application, std::optional<std::string>(kWorkBrowser));
}

TEST_F(AppDelegateTest, MissingOrUnsetNonWorkBrowserFallsBackToTheWorkBrowser) {
  delegate_.launchBrowser("https://example.org/");
  delegate_.setNonWorkBrowserPath("file:///personal");
  workspace_.paths["file:///personal"] = "/no/such/browser";
  delegate_.launchBrowser("https://example.org/");
  delegate_.setNonWorkBrowserPath("https://remote.example/browser");  // names no local path
  delegate_.launchBrowser("https://example.org/");
  workspace_.JoinAll();
  for (const auto& r : workspace_.Requests()) EXPECT_EQ(r.application, std::optional<std::string>(kWorkBrowser));
  EXPECT_EQ(Count("No browser set for non-work URLs. Opening in work browser."), 1);
  EXPECT_EQ(Count("Selected non-work browser not found, will open url in work browser."), 2);
}

TEST_F(AppDelegateTest, FailedOpenIsRetriedOnceInTheWorkBrowserAndCountedOnce) {
  corvane_test::TempDir dir;
  delegate_.setNonWorkBrowserPath("file:///not-an-app");
  workspace_.paths["file:///not-an-app"] = dir.path();  // a directory exists
  workspace_.failing = {"file:///not-an-app"};
  delegate_.raiseLaunchCounter();
  delegate_.launchBrowser("https://example.org/");
  workspace_.JoinAll();
  std::vector<OpenRequest> requests = workspace_.Requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].application, std::optional<std::string>("file:///not-an-app"));
  EXPECT_EQ(requests[1].application, std::optional<std::string>(kWorkBrowser));
  EXPECT_EQ(requests[1].url, "https://example.org/");
  EXPECT_EQ(delegate_.launchCounter(), 0);
  EXPECT_EQ(Count("Failed to launch URL, will try to launch URL again in work browser."), 1);
  // A retry that succeeds says nothing.
  EXPECT_EQ(Count("Launched browser successfully."), 0);
  EXPECT_EQ(Count("Failed to launch URL in work browser as well."), 0);
}

TEST_F(AppDelegateTest, MissingWorkBrowserFailsTwiceAndStillCountsDown) {
  workspace_.work_browser = std::nullopt;
  delegate_.applicationOpenURLs({"https://intra.corp.test/"});
  ASSERT_TRUE(shell_.WaitForTermination(std::chrono::seconds(10)));
  std::vector<OpenRequest> requests = workspace_.Requests();
  ASSERT_EQ(requests.size(), 2u) << "no third attempt";
  EXPECT_FALSE(requests[0].application.has_value());
  EXPECT_FALSE(requests[1].application.has_value());
  EXPECT_EQ(delegate_.launchCounter(), 0);
  EXPECT_EQ(Count("Failed to launch URL, will try to launch URL again in work browser."), 1);
  EXPECT_EQ(Count("Failed to launch URL in work browser as well."), 1);
}

TEST_F(AppDelegateTest, SystemThatCannotOpenKeepsTheCountAndOpensNothing) {
  workspace_.can_open = false;
  delegate_.raiseLaunchCounter();
  delegate_.launchBrowser("https://intra.corp.test/");
  EXPECT_TRUE(workspace_.Requests().empty());
  EXPECT_EQ(delegate_.launchCounter(), 1);
  EXPECT_EQ(Count("Current macOS version is older than the minimum supported version (macOS 10.15)!"), 1);
  EXPECT_EQ(Count("Pattern : *.corp.test/*"), 0) << "nothing classified";
}

TEST_F(AppDelegateTest, TerminationWaitsTwoSecondsThenForTheLastLaunch) {
  workspace_.hold_completions = true;
  auto start = std::chrono::steady_clock::now();
  delegate_.applicationOpenURLs({"https://intra.corp.test/"});
  EXPECT_TRUE(delegate_.isDispatcherTerminating());
  // A second delivery while the first is pending schedules no second task.
  delegate_.applicationOpenURLs({"https://example.org/"});
  EXPECT_EQ(delegate_.launchCounter(), 2);
  EXPECT_FALSE(shell_.WaitForTermination(std::chrono::milliseconds(2600)));
  auto released = std::chrono::steady_clock::now();
  workspace_.Release();
  ASSERT_TRUE(shell_.WaitForTermination(std::chrono::seconds(10)));
  EXPECT_GE(shell_.terminated_at() - start, std::chrono::seconds(2));
  EXPECT_GE(shell_.terminated_at(), released);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(shell_.terminations(), 1);
}

TEST_F(AppDelegateTest, EmptyDeliveryTerminatesAfterTheInitialWait) {
  auto start = std::chrono::steady_clock::now();
  delegate_.applicationOpenURLs({});
  EXPECT_EQ(Lines().back(), "Corvane Dispatcher received urls - [  ]");
  ASSERT_TRUE(shell_.WaitForTermination(std::chrono::seconds(10)));
  EXPECT_GE(shell_.terminated_at() - start, std::chrono::seconds(2));
  EXPECT_TRUE(workspace_.Requests().empty());
}

TEST_F(AppDelegateTest, CounterReachesZeroExactlyOncePerUrlUnderConcurrentCompletions) {
  corvane_test::TempDir dir;
  delegate_.setNonWorkBrowserPath("file:///flaky");
  workspace_.paths["file:///flaky"] = dir.path();
  workspace_.failing = {"file:///flaky"};
  std::vector<std::string> urls;
  for (int i = 0; i < 150; ++i) {
    urls.push_back(i % 3 == 0 ? "https://h" + std::to_string(i) + ".corp.test/" : "https://site" + std::to_string(i) + ".example/");
  }
  delegate_.applicationOpenURLs(urls);
  ASSERT_TRUE(shell_.WaitForTermination(std::chrono::seconds(30)));
  workspace_.JoinAll();
  EXPECT_EQ(delegate_.launchCounter(), 0);
  // 50 work URLs open once; 100 non-work URLs fail once and are retried.
  EXPECT_EQ(workspace_.Requests().size(), 250u);
  EXPECT_EQ(Count("Launched browser successfully."), 50);
  EXPECT_EQ(Count("Failed to launch URL, will try to launch URL again in work browser."), 100);
}

TEST_F(AppDelegateTest, LaunchHookResetsStateBeforeAnyDelivery) {
  delegate_.setLaunchCounter(5);
  delegate_.setIsDispatcherTerminating(true);
  delegate_.setNonWorkBrowserPath("file:///stale");
  delegate_.applicationWillFinishLaunching();
  EXPECT_EQ(delegate_.launchCounter(), 0);
  EXPECT_FALSE(delegate_.isDispatcherTerminating());
  std::vector<std::string> lines = Lines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], "Dispatcher Application is launching.");
  EXPECT_EQ(lines[1].rfind("Local State Path ", 0), 0u);
}

}  // namespace
