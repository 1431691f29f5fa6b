// Opening URLs on the Linux desktop: desktop entries through GIO, any other
// program started directly, each URL one argv element.
#ifndef PLATFORM_LINUX_LINUX_WORKSPACE_H_
#define PLATFORM_LINUX_LINUX_WORKSPACE_H_

#include <glib.h>

#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "dispatcher/workspace.h"

namespace dispatcher::linux_shell {

// What the dispatcher's own start left in its environment that must not, or
// must, reach the browsers it starts.
struct LaunchEnvironment {
  // The token that lets the browser's window take focus.
  std::optional<std::string> xdg_activation_token;  // XDG_ACTIVATION_TOKEN
  std::optional<std::string> desktop_startup_id;     // DESKTOP_STARTUP_ID
  // GIO_USE_VFS as it was before the dispatcher set it for itself.
  std::optional<std::string> original_gio_use_vfs;
  // The mark of the dispatcher whose browser launch started us, if any.
  std::optional<std::string> launch_marker;
};

// Reads the environment at process start, before anything changes it.
LaunchEnvironment CaptureLaunchEnvironment();

// Loads the key file (a desktop entry) at `path` without ever waiting: only
// a regular file is read, so that a FIFO cannot hold the dispatcher up as it
// would GLib's own loader. nullptr when it is none or cannot be loaded; else
// the caller frees it.
GKeyFile* LoadKeyFile(const std::string& path);

// The desktop entry of the work browser.
inline constexpr char kWorkBrowserDesktopId[] = "com.velora.velorabrowser.desktop";

// The desktop file that GIO's lookup of `desktop_id` (g_desktop_app_info_new)
// loads: in the first data folder, $XDG_DATA_HOME then $XDG_DATA_DIRS as GLib
// reads them, whose applications folder lists the id and whose file GIO can
// load; nullopt when there is none or that one is Hidden. Found directly,
// without GIO's scan and watch of every applications folder, which costs more
// than the rest of a click. Only for ids without "-": no subfolder of an
// applications folder can give such an id.
std::optional<std::string> FindDesktopFile(const char* desktop_id);

class LinuxWorkspace : public Workspace {
 public:
  explicit LinuxWorkspace(LaunchEnvironment environment);
  ~LinuxWorkspace() override;

  // The activation token of the delivery being handled (a later delivery can
  // come from another process with a token of its own).
  void SetActivationTokens(std::optional<std::string> xdg_activation_token,
                           std::optional<std::string> desktop_startup_id);

  // The loop depth of the delivery being handled, which the launches made
  // for it pass on in their mark (see loop_guard.h).
  void SetDeliveryLoopDepth(int depth);

  bool CanOpenUrls() override;
  std::optional<Url> WorkBrowserLocation() override;
  bool StartsThisDispatcher(const Url& location) override;
  void OpenUrl(const Url& url, const std::optional<Url>& application,
               Completion completion) override;

  // The local program or desktop entry that OpenUrl starts for an
  // application location: the path of a file URL on this host or of an
  // absolute path without a scheme. nullopt for anything else (https, another
  // host, a relative reference), which cannot be started.
  static std::optional<std::string> StartablePath(const Url& location);

 private:
  // How a started browser's environment differs from ours: a value, or
  // nullopt to unset the variable.
  std::vector<std::pair<std::string, std::optional<std::string>>> BrowserEnvironmentChanges();

  // Tokens and depth change per delivery while launches may be under way.
  std::mutex mutex_;
  LaunchEnvironment environment_;
  int delivery_loop_depth_ = 0;
};

}  // namespace dispatcher::linux_shell

#endif  // PLATFORM_LINUX_LINUX_WORKSPACE_H_
