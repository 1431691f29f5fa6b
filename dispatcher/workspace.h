// The platform services the dispatcher core needs, one narrow interface per
// role. Each platform shell implements them.
#ifndef DISPATCHER_WORKSPACE_H_
#define DISPATCHER_WORKSPACE_H_

#include <functional>
#include <optional>
#include <string>

namespace dispatcher {

// Opens URLs in applications. Applications are named by a URL of their
// location (a file URL), the work browser's found by its identifier.
class Workspace {
 public:
  // Called once per open request, on any thread, with whether the browser
  // could be started.
  using Completion = std::function<void(bool succeeded)>;

  virtual ~Workspace() = default;

  // Whether this system can open URLs in a named application at all.
  virtual bool CanOpenUrls() = 0;

  // The work browser's location, looked up afresh on every call; nullopt
  // when it is not installed.
  virtual std::optional<std::string> WorkBrowserLocation() = 0;

  // The file-system path of an application location URL; nullopt when the
  // URL names no local path.
  virtual std::optional<std::string> PathOfLocation(const std::string& location) = 0;

  // Opens exactly one URL in the application at `application` (nullopt: the
  // work browser was not found, which the completion reports as a failure).
  // Returns at once; may be called on any thread.
  virtual void OpenUrl(const std::string& url, const std::optional<std::string>& application,
                       Completion completion) = 0;
};

// The application framework's side of shutdown.
class ApplicationShell {
 public:
  virtual ~ApplicationShell() = default;
  // Asks the framework to end the application; it then calls
  // applicationWillTerminate. May be called from any thread.
  virtual void Terminate() = 0;
};

}  // namespace dispatcher

#endif  // DISPATCHER_WORKSPACE_H_
