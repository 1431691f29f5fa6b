#include "dispatcher/dispatcher_delegate.h"

#include <chrono>
#include <memory>
#include <mutex>
#include <thread>

#include "base/logging.h"
#include "base/files/file_util.h"
#include "dispatcher/classifier.h"
#include "dispatcher/local_state.h"
#include "dispatcher/url.h"

namespace dispatcher {

namespace {

// One URL's launch: the URL, the work browser found for it, and the
// application the next attempt uses, shared by the call and its first
// completion.
struct Launch {
  Url url;
  std::optional<Url> work_browser;
  // Opening in this work browser would only start another dispatcher.
  bool work_browser_is_dispatcher = false;
  std::mutex target_lock;  // the first completion may run on another thread
  std::optional<Url> target_application;
};

// A browser that took the URL without answering may still open it: another
// attempt could open it twice.
constexpr char kNoAnswerYet[] = "The browser did not answer in time; not retrying, it may still open the URL.";

// Hands one attempt to the workspace. An attempt in a work browser that is
// this dispatcher fails at once instead: it is never retried into itself.
void Attempt(Workspace& workspace, const Launch& launch, const std::optional<Url>& target,
             bool in_work_browser, Workspace::Completion completion) {
  if (in_work_browser && launch.work_browser_is_dispatcher) {
    completion(Workspace::Outcome::kFailed);
    return;
  }
  workspace.OpenUrl(launch.url, target, std::move(completion));
}

}  // namespace

AppDelegate::AppDelegate(Workspace& workspace, ApplicationShell& application)
    : workspace_(workspace), application_(application) {}

void AppDelegate::launchBrowser(const Url& url, DeliveryOrigin origin, std::function<void()> completed) {
  if (!workspace_.CanOpenUrls()) {
    LOG(ERROR) << "Current macOS version is older than the minimum supported version (macOS 10.15)!";
    return;
  }

  const bool is_work = origin == DeliveryOrigin::kDirect && isWorkUrl(url);

  auto launch = std::make_shared<Launch>();
  launch->url = url;
  launch->work_browser = workspace_.WorkBrowserLocation();
  launch->work_browser_is_dispatcher =
      origin == DeliveryOrigin::kLoopWorkBrowserLaunch ||
      (launch->work_browser && workspace_.StartsThisDispatcher(*launch->work_browser));
  launch->target_application = launch->work_browser;
  bool in_work_browser = true;

  if (origin == DeliveryOrigin::kDispatcherLaunch) {
    LOG(ERROR) << "Started by a dispatcher's browser launch moments ago: not routing again, "
                  "opening url in work browser.";
  } else if (origin == DeliveryOrigin::kLoopWorkBrowserLaunch) {
    LOG(ERROR) << "Started by a dispatcher's work browser launch for a loop: the work browser "
                  "runs the dispatcher as well.";
  } else if (is_work) {
    LOG(INFO) << "It is a hosted app url. Launching url in work browser.";
  } else if (!nonWorkBrowserPath()) {
    LOG(ERROR) << "No browser set for non-work URLs. Opening in work browser.";
  } else {
    std::optional<std::string> path = UrlPath(nonWorkBrowserPath()->spec);
    if (!path || !base::PathExists(base::FilePath(*path))) {
      LOG(ERROR) << "Selected non-work browser not found, will open url in work browser.";
    } else if (workspace_.StartsThisDispatcher(*nonWorkBrowserPath())) {
      LOG(ERROR) << "Selected non-work browser is the dispatcher itself and would start it again.";
      LOG(ERROR) << "Selected non-work browser not found, will open url in work browser.";
    } else {
      launch->target_application = nonWorkBrowserPath();
      in_work_browser = false;
      LOG(INFO) << "Selected non-work browser found, will launch url in non-work browser.";
    }
  }

  std::optional<Url> first_target;
  {
    std::lock_guard<std::mutex> lock(launch->target_lock);
    first_target = launch->target_application;
  }
  Attempt(workspace_, *launch, first_target, in_work_browser, [this, launch, completed](Workspace::Outcome outcome) {
    if (outcome == Workspace::Outcome::kNoAnswerYet) {
      if (completed) completed();
      LOG(ERROR) << kNoAnswerYet;
      lowerLaunchCounter();
      return;
    }
    if (outcome == Workspace::Outcome::kFailed) {
      LOG(ERROR) << "Failed to launch URL, will try to launch URL again in work browser.";
      std::optional<Url> retry_target;
      {
        std::lock_guard<std::mutex> lock(launch->target_lock);
        launch->target_application = launch->work_browser;
        retry_target = launch->target_application;
      }
      Attempt(workspace_, *launch, retry_target, true, [this, completed](Workspace::Outcome retry_outcome) {
        if (completed) completed();
        lowerLaunchCounter();
        if (retry_outcome == Workspace::Outcome::kFailed) LOG(ERROR) << "Failed to launch URL in work browser as well.";
        if (retry_outcome == Workspace::Outcome::kNoAnswerYet) LOG(ERROR) << kNoAnswerYet;
      });
      return;
    }
    if (completed) completed();
    lowerLaunchCounter();
    LOG(INFO) << "Launched browser successfully.";
  });
}

bool AppDelegate::isWorkUrl(const Url& url) {
  return classifier_.Classify(url.spec, InvalidPatternHandling::kAbort).is_work;
}

void AppDelegate::readLocalStatePrefs() {
  LocalStatePolicy policy = ReadLocalStatePolicy(LocalStatePath());
  setPolicyUrls(std::move(policy.policy_urls));
  setNonWorkBrowserPath(std::move(policy.non_work_browser_url));
}

std::string AppDelegate::convertUrlArrayToString(const std::vector<Url>& urls) {
  std::string text = "[ ";
  for (size_t i = 0; i < urls.size(); ++i) {
    text += urls[i].spec;
    if (static_cast<int32_t>(i) + 1 < static_cast<int32_t>(urls.size())) text += ", ";
  }
  text += " ]";
  return text;
}

void AppDelegate::applicationOpenURLs(const std::vector<Url>& urls, DeliveryOrigin origin,
                                      std::function<void(size_t index)> handed) {
  LOG(INFO) << "Corvane Dispatcher received urls - " << convertUrlArrayToString(urls);
  for (size_t i = 0; i < urls.size(); ++i) {
    // Raised before the launch so that no completion can see it at zero.
    raiseLaunchCounter();
    uint64_t launch;
    {
      std::lock_guard<std::mutex> lock(outstanding_lock_);
      launch = next_launch_++;
      outstanding_.emplace(launch, urls[i]);
    }
    launchBrowser(urls[i], origin, [this, launch, i, handed] {
      {
        std::lock_guard<std::mutex> lock(outstanding_lock_);
        outstanding_.erase(launch);
      }
      if (handed) handed(i);
    });
  }
  if (isDispatcherTerminating()) return;
  setIsDispatcherTerminating(true);
  application_.RunInBackground([this] { terminateDispatcher(); });
}

void AppDelegate::terminateDispatcher() {
  std::this_thread::sleep_for(std::chrono::duration<double>(2.0));
  // The poll interval is the single-precision 0.1 widened to double.
  const std::chrono::duration<double> poll_interval(static_cast<double>(0.1f));
  while (launchCounter() != 0) std::this_thread::sleep_for(poll_interval);
  // The end is decided on the main thread, where a delivery that came after
  // the last poll has raised the counter again: its URLs are seen through
  // first.
  application_.RunOnMainThread([this] { terminateWhenNoLaunchIsOutstanding(); }, std::chrono::milliseconds(0));
}

void AppDelegate::terminateWhenNoLaunchIsOutstanding() {
  if (launchCounter() != 0) {
    application_.RunOnMainThread([this] { terminateWhenNoLaunchIsOutstanding(); }, kTerminationRecheck);
    return;
  }
  application_.Terminate();
}

void AppDelegate::applicationWillFinishLaunching() {
  LOG(INFO) << "Dispatcher Application is launching.";
  setNonWorkBrowserPath(std::nullopt);
  readLocalStatePrefs();
  setLaunchCounter(0);
  setIsDispatcherTerminating(false);
}

void AppDelegate::applicationWillTerminate() { LOG(INFO) << "Terminated Dispatcher Application."; }

void AppDelegate::applicationWillTerminateOnSignal(const char* signal_name, std::vector<Url> unhanded) {
  {
    std::lock_guard<std::mutex> lock(outstanding_lock_);
    for (const auto& [launch, url] : outstanding_) unhanded.push_back(url);
  }
  if (unhanded.empty()) {
    LOG(INFO) << "Ending on " << signal_name << " with no launch outstanding.";
  } else {
    LOG(ERROR) << "Ending on " << signal_name << " before these urls were handed to a browser - "
               << convertUrlArrayToString(unhanded);
  }
}

int32_t AppDelegate::launchCounter() const { return launch_counter_.load(); }
void AppDelegate::setLaunchCounter(int32_t value) { launch_counter_.store(value); }
void AppDelegate::raiseLaunchCounter() { launch_counter_.fetch_add(1); }
void AppDelegate::lowerLaunchCounter() { launch_counter_.fetch_sub(1); }

const std::optional<PolicyRules>& AppDelegate::policyUrls() const { return classifier_.rules(); }
void AppDelegate::setPolicyUrls(std::optional<PolicyRules> rules) {
  classifier_ = UrlClassifier(std::move(rules));
}

const std::optional<Url>& AppDelegate::nonWorkBrowserPath() const { return non_work_browser_path_; }
void AppDelegate::setNonWorkBrowserPath(std::optional<Url> location) {
  non_work_browser_path_ = std::move(location);
}

bool AppDelegate::isDispatcherTerminating() const { return is_dispatcher_terminating_.load(); }
void AppDelegate::setIsDispatcherTerminating(bool terminating) {
  is_dispatcher_terminating_.store(terminating);
}

}  // namespace dispatcher
