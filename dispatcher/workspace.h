// The platform services the dispatcher core needs, one narrow interface per
// role. Each platform shell implements them.
#ifndef DISPATCHER_WORKSPACE_H_
#define DISPATCHER_WORKSPACE_H_

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

namespace dispatcher {

// A URL as it travels through the core: its text, which every decision and
// log line reads, and the platform's own URL object where the platform
// delivered one. That object goes back to the platform untouched, so no
// conversion to text and back can change or drop a URL. On Linux the text is
// the URL and there is no object.
struct Url {
  Url() = default;
  // Implicit: plain text is a complete URL on a platform without objects.
  Url(std::string text) : spec(std::move(text)) {}  // NOLINT(google-explicit-constructor)
  Url(const char* text) : spec(text) {}              // NOLINT(google-explicit-constructor)
  Url(std::string text, std::shared_ptr<const void> object)
      : spec(std::move(text)), platform_object(std::move(object)) {}

  std::string spec;
  std::shared_ptr<const void> platform_object;
};

// Opens URLs in applications. Applications are named by a URL of their
// location (a file URL), the work browser's found by its identifier.
class Workspace {
 public:
  // How an open request ended.
  enum class Outcome {
    kStarted,
    kFailed,
    // The browser took the request and has not answered within a few
    // seconds: it may still open the URL, so the request is not repeated.
    kNoAnswerYet,
  };
  // Called once per open request, on any thread; already from inside
  // OpenUrl when the outcome is known there.
  using Completion = std::function<void(Outcome outcome)>;

  virtual ~Workspace() = default;

  // Whether this system can open URLs in a named application at all.
  virtual bool CanOpenUrls() = 0;

  // The work browser's location, looked up afresh on every call; nullopt
  // when it is not installed.
  virtual std::optional<Url> WorkBrowserLocation() = 0;

  // Whether opening a URL in the application at `location` would start this
  // dispatcher again: its own program, an entry or bundle of it, or a wrapper
  // that recognisably runs it. A loop of dispatchers would never reach a
  // browser.
  virtual bool StartsThisDispatcher(const Url& location) = 0;

  // Opens exactly one URL in the application at `application` (nullopt: the
  // work browser was not found, which the completion reports as a failure).
  // Returns at once; may be called on any thread.
  virtual void OpenUrl(const Url& url, const std::optional<Url>& application,
                       Completion completion) = 0;
};

// The application framework's side of shutdown.
class ApplicationShell {
 public:
  virtual ~ApplicationShell() = default;
  // Asks the framework to end the application; it then calls
  // applicationWillTerminate. Called on the main thread only.
  virtual void Terminate() = 0;

  // Runs `task` on the main thread, where deliveries are handled, once
  // `delay` has passed; returns at once. May be called from any thread.
  virtual void RunOnMainThread(std::function<void()> task, std::chrono::milliseconds delay) = 0;

  // Runs `task` once on a worker of the system's default-priority background
  // pool and returns at once; the task may block its worker for seconds.
  virtual void RunInBackground(std::function<void()> task) { std::thread(std::move(task)).detach(); }
};

}  // namespace dispatcher

#endif  // DISPATCHER_WORKSPACE_H_
