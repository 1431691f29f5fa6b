// The dispatcher's one application delegate: the only carrier of state
// between the application framework's callbacks, with one method per step.
#ifndef DISPATCHER_DISPATCHER_DELEGATE_H_
#define DISPATCHER_DISPATCHER_DELEGATE_H_

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "dispatcher/classifier.h"
#include "dispatcher/policy.h"
#include "dispatcher/workspace.h"

namespace dispatcher {

class AppDelegate {
 public:
  AppDelegate(Workspace& workspace, ApplicationShell& application);
  AppDelegate(const AppDelegate&) = delete;
  AppDelegate& operator=(const AppDelegate&) = delete;

  // Opens one URL in the browser that policy chooses, retrying a failed open
  // once in the work browser. Returns without waiting for the browser.
  void launchBrowser(const std::string& url);
  bool isWorkUrl(const std::string& url);
  void readLocalStatePrefs();
  std::string convertUrlArrayToString(const std::vector<std::string>& urls);
  // One delivery of URLs (application:openURLs:).
  void applicationOpenURLs(const std::vector<std::string>& urls);
  // Waits 2 s, then until no launch is outstanding, then terminates. Blocks;
  // never called on the main thread.
  void terminateDispatcher();
  void applicationWillFinishLaunching();
  void applicationWillTerminate();

  int32_t launchCounter() const;
  void setLaunchCounter(int32_t value);
  // One URL handed out / one URL's last attempt completed, each a single
  // atomic step since completions arrive on any thread.
  void raiseLaunchCounter();
  void lowerLaunchCounter();

  const std::optional<PolicyRules>& policyUrls() const;
  void setPolicyUrls(std::optional<PolicyRules> rules);

  const std::optional<std::string>& nonWorkBrowserPath() const;
  void setNonWorkBrowserPath(std::optional<std::string> location);

  bool isDispatcherTerminating() const;
  void setIsDispatcherTerminating(bool terminating);

 private:
  Workspace& workspace_;
  ApplicationShell& application_;

  std::atomic<int32_t> launch_counter_{0};
  // Owns policyUrls and keeps its patterns prepared between URLs.
  UrlClassifier classifier_{std::nullopt};
  std::optional<std::string> non_work_browser_path_;
  std::atomic<bool> is_dispatcher_terminating_{false};
};

}  // namespace dispatcher

#endif  // DISPATCHER_DISPATCHER_DELEGATE_H_
