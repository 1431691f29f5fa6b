// The Linux shell: a GApplication that delivers the dispatcher's launch,
// URL deliveries and termination to the one AppDelegate.
#include <gio/gio.h>

#include <optional>
#include <string>
#include <vector>

#include "base/files/file_util.h"
#include "base/logging.h"
#include "dispatcher/dispatcher_delegate.h"
#include "dispatcher/dispatcher_main.h"
#include "platform/linux/command_line_urls.h"
#include "platform/linux/linux_workspace.h"
#include "platform/linux/loop_guard.h"

namespace {

using dispatcher::AppDelegate;
using dispatcher::linux_shell::LinuxWorkspace;

constexpr char kApplicationId[] = "com.halvard.corvane.dispatcher";
// How often the main thread looks again when a delivery slipped in between
// the last poll of the launch counter and the termination.
constexpr guint kTerminationRecheckMilliseconds = 100;

struct Shell;

// Termination arrives from the worker thread; the quit happens on the main
// thread, where deliveries are handled too.
class GApplicationShell : public dispatcher::ApplicationShell {
 public:
  explicit GApplicationShell(Shell* shell) : shell_(shell) {}
  void Terminate() override;

 private:
  Shell* shell_;
};

struct Shell {
  GApplication* application = nullptr;
  std::optional<LinuxWorkspace> workspace;
  std::optional<GApplicationShell> application_shell;
  std::optional<AppDelegate> delegate;
  dispatcher::linux_shell::LaunchEnvironment environment;
  // This process meant to hand its delivery to the running dispatcher, which
  // did not take it.
  bool forwarding_failed = false;
};

gboolean QuitWhenNoLaunchIsOutstanding(gpointer data) {
  auto* shell = static_cast<Shell*>(data);
  // A delivery handled after the last poll has raised the counter again:
  // its launches must complete before the process may end.
  if (shell->delegate->launchCounter() != 0) return G_SOURCE_CONTINUE;
  g_application_quit(shell->application);
  return G_SOURCE_REMOVE;
}

gboolean BeginQuit(gpointer data) {
  if (QuitWhenNoLaunchIsOutstanding(data) == G_SOURCE_CONTINUE) {
    g_timeout_add(kTerminationRecheckMilliseconds, QuitWhenNoLaunchIsOutstanding, data);
  }
  return G_SOURCE_REMOVE;
}

void GApplicationShell::Terminate() { g_idle_add(BeginQuit, shell_); }

// Runs in the dispatcher that handles deliveries, never in one that only
// hands its delivery on: that one must leave the log alone.
void OnStartup(GApplication* application, gpointer data) {
  auto* shell = static_cast<Shell*>(data);
  dispatcher::InitializeDispatcherLogging();
  if (shell->forwarding_failed) {
    LOG(ERROR) << "The running dispatcher did not take this delivery; handling it in this process.";
  }
  // Deliveries arrive one by one; the application runs until the delegate
  // asks it to end, not until the first delivery has been handled.
  g_application_hold(application);
  shell->delegate->applicationWillFinishLaunching();
}

std::optional<std::string> DeliveryVariable(GApplicationCommandLine* command_line,
                                            const char* name,
                                            const std::optional<std::string>& own_value) {
  if (!g_application_command_line_get_is_remote(command_line)) return own_value;
  const gchar* value = g_application_command_line_getenv(command_line, name);
  if (!value) return std::nullopt;
  return std::string(value);
}

int OnCommandLine(GApplication*, GApplicationCommandLine* command_line, gpointer data) {
  auto* shell = static_cast<Shell*>(data);
  int argc = 0;
  // Raw argument bytes, so that URLs stay byte-exact.
  gchar** argv = g_application_command_line_get_arguments(command_line, &argc);
  std::vector<std::string> arguments;
  for (int i = 1; i < argc; ++i) arguments.emplace_back(argv[i]);
  g_strfreev(argv);
  const gchar* cwd = g_application_command_line_get_cwd(command_line);

  shell->workspace->SetActivationTokens(
      DeliveryVariable(command_line, "XDG_ACTIVATION_TOKEN", shell->environment.xdg_activation_token),
      DeliveryVariable(command_line, "DESKTOP_STARTUP_ID", shell->environment.desktop_startup_id));
  const int loop_depth = dispatcher::linux_shell::LaunchLoopDepth(DeliveryVariable(
      command_line, dispatcher::linux_shell::kLaunchMarkerVariable, shell->environment.launch_marker));
  shell->workspace->SetDeliveryLoopDepth(loop_depth);
  const dispatcher::DeliveryOrigin origin =
      loop_depth == 0   ? dispatcher::DeliveryOrigin::kDirect
      : loop_depth == 1 ? dispatcher::DeliveryOrigin::kDispatcherLaunch
                        : dispatcher::DeliveryOrigin::kLoopWorkBrowserLaunch;
  std::vector<std::string> texts = dispatcher::linux_shell::UrlsFromCommandLine(arguments, cwd ? cwd : "/");
  // The text is the whole URL here: no platform object goes with it.
  shell->delegate->applicationOpenURLs(std::vector<dispatcher::Url>(texts.begin(), texts.end()), origin);
  return 0;
}

void OnShutdown(GApplication*, gpointer data) {
  static_cast<Shell*>(data)->delegate->applicationWillTerminate();
}

void CreateApplication(Shell* shell, GApplicationFlags flags) {
  shell->application = g_application_new(kApplicationId, flags);
  g_signal_connect(shell->application, "startup", G_CALLBACK(OnStartup), shell);
  g_signal_connect(shell->application, "command-line", G_CALLBACK(OnCommandLine), shell);
  g_signal_connect(shell->application, "shutdown", G_CALLBACK(OnShutdown), shell);
}

}  // namespace

int main(int argc, char** argv) {
  base::EnsureStandardDescriptorsOpen();  // before any file is opened: the log must never be fd 2
  // Lives until the process ends: the termination worker and late launch
  // completions still reach it.
  static Shell& shell = *new Shell;
  shell.environment = dispatcher::linux_shell::CaptureLaunchEnvironment();
  // Our own URI handling stays local: the gvfs daemon would mount remote
  // locations and costs milliseconds per call.
  g_setenv("GIO_USE_VFS", "local", TRUE);

  shell.workspace.emplace(shell.environment);
  shell.application_shell.emplace(&shell);
  shell.delegate.emplace(*shell.workspace, *shell.application_shell);

  // With a session bus the first dispatcher takes the deliveries of later
  // ones, and only it starts up (log, banner, policy), in "startup", which
  // registration emits in the first one alone. A later one whose delivery
  // meets the first one going away handles the delivery itself rather than
  // lose it, with the whole start-up.
  const auto unique = static_cast<GApplicationFlags>(G_APPLICATION_HANDLES_COMMAND_LINE |
                                                     G_APPLICATION_SEND_ENVIRONMENT);
  CreateApplication(&shell, unique);
  bool registered = g_application_register(shell.application, nullptr, nullptr);
  const bool forwarding = registered && g_application_get_is_remote(shell.application);
  int status = registered ? g_application_run(shell.application, argc, argv) : 1;
  if (!registered || (forwarding && status != 0)) {
    shell.forwarding_failed = true;
    g_object_unref(shell.application);
    CreateApplication(&shell, static_cast<GApplicationFlags>(unique | G_APPLICATION_NON_UNIQUE));
    status = g_application_run(shell.application, argc, argv);
  }
  g_object_unref(shell.application);
  return status;
}
