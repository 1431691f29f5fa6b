// The dispatcher's one application delegate: the only carrier of state
// between the application framework's callbacks, with one method per step.
#ifndef DISPATCHER_DISPATCHER_DELEGATE_H_
#define DISPATCHER_DISPATCHER_DELEGATE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "dispatcher/classifier.h"
#include "dispatcher/policy.h"
#include "dispatcher/workspace.h"

namespace dispatcher {

// How a delivery reached us. A dispatcher that a dispatcher's own browser
// launch started is part of a loop of dispatchers: a non-work browser that
// runs the dispatcher, one way or another. If the work browser launch made
// for such a delivery starts a dispatcher again, the work browser runs it too.
enum class DeliveryOrigin {
  kDirect,
  kDispatcherLaunch,          // every URL goes to the work browser unrouted
  kLoopWorkBrowserLaunch,     // and from there no launch can end the loop
};

class AppDelegate {
 public:
  AppDelegate(Workspace& workspace, ApplicationShell& application);
  AppDelegate(const AppDelegate&) = delete;
  AppDelegate& operator=(const AppDelegate&) = delete;

  // Opens one URL in the browser that policy chooses, retrying a failed open
  // once in the work browser (but not one that went unanswered, which may
  // still succeed). Returns without waiting for the browser. A URL
  // that came through a loop of dispatchers goes to the work browser
  // unrouted, or fails at once when the work browser is what loops.
  // `completed` runs, on any thread, when the URL's last attempt has
  // completed, just before the launch counter is lowered.
  void launchBrowser(const Url& url, DeliveryOrigin origin = DeliveryOrigin::kDirect,
                     std::function<void()> completed = nullptr);
  bool isWorkUrl(const Url& url);
  void readLocalStatePrefs();
  std::string convertUrlArrayToString(const std::vector<Url>& urls);
  // One delivery of URLs (application:openURLs:). `handed` is called once
  // for each URL, with its index, on any thread, when the URL is seen
  // through: its last attempt has completed (its browser was started, or
  // every attempt failed with its ERROR lines).
  void applicationOpenURLs(const std::vector<Url>& urls,
                           DeliveryOrigin origin = DeliveryOrigin::kDirect,
                           std::function<void(size_t index)> handed = nullptr);
  // Waits 2 s, then until no launch is outstanding, then terminates. Blocks;
  // never called on the main thread.
  void terminateDispatcher();
  // On the main thread: terminates once no launch is outstanding, looking
  // again every kTerminationRecheck.
  void terminateWhenNoLaunchIsOutstanding();
  static constexpr std::chrono::milliseconds kTerminationRecheck{100};
  void applicationWillFinishLaunching();
  void applicationWillTerminate();
  // The process is ending on a signal (`signal_name`, "SIGTERM" say) before
  // its launches are done: one line naming `unhanded`, the URLs that the
  // shell received but never passed to applicationOpenURLs, and then every
  // URL handed out whose last attempt has not completed.
  void applicationWillTerminateOnSignal(const char* signal_name, std::vector<Url> unhanded);

  int32_t launchCounter() const;
  void setLaunchCounter(int32_t value);
  // One URL handed out / one URL's last attempt completed, each a single
  // atomic step since completions arrive on any thread.
  void raiseLaunchCounter();
  void lowerLaunchCounter();

  const std::optional<PolicyRules>& policyUrls() const;
  void setPolicyUrls(std::optional<PolicyRules> rules);

  const std::optional<Url>& nonWorkBrowserPath() const;
  void setNonWorkBrowserPath(std::optional<Url> location);

  bool isDispatcherTerminating() const;
  void setIsDispatcherTerminating(bool terminating);

 private:
  Workspace& workspace_;
  ApplicationShell& application_;

  std::atomic<int32_t> launch_counter_{0};
  // Owns policyUrls and keeps its patterns prepared between URLs.
  UrlClassifier classifier_{std::nullopt};
  std::optional<Url> non_work_browser_path_;
  std::atomic<bool> is_dispatcher_terminating_{false};

  // The URLs handed out whose last attempt has not completed, in the order
  // they were handed out; completions may arrive on any thread.
  std::mutex outstanding_lock_;
  std::map<uint64_t, Url> outstanding_;
  uint64_t next_launch_ = 0;
};

}  // namespace dispatcher

#endif  // DISPATCHER_DISPATCHER_DELEGATE_H_
