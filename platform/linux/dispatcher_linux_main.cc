// The Linux shell: a GApplication that delivers the dispatcher's launch,
// URL deliveries and termination to the one AppDelegate.
#include <gio/gio.h>

#include <optional>
#include <string>
#include <vector>

#include "base/logging.h"
#include "dispatcher/dispatcher_delegate.h"
#include "dispatcher/dispatcher_main.h"
#include "platform/linux/command_line_urls.h"
#include "platform/linux/linux_workspace.h"

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

void OnStartup(GApplication* application, gpointer data) {
  auto* shell = static_cast<Shell*>(data);
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
  std::vector<std::string> texts = dispatcher::linux_shell::UrlsFromCommandLine(arguments, cwd ? cwd : "/");
  // The text is the whole URL here: no platform object goes with it.
  shell->delegate->applicationOpenURLs(std::vector<dispatcher::Url>(texts.begin(), texts.end()));
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
  // Lives until the process ends: the termination worker and late launch
  // completions still reach it.
  static Shell& shell = *new Shell;
  shell.environment = dispatcher::linux_shell::CaptureLaunchEnvironment();
  // Our own URI handling stays local: the gvfs daemon would mount remote
  // locations and costs milliseconds per call.
  g_setenv("GIO_USE_VFS", "local", TRUE);

  dispatcher::InitializeDispatcherLogging();

  shell.workspace.emplace(shell.environment);
  shell.application_shell.emplace(&shell);
  shell.delegate.emplace(*shell.workspace, *shell.application_shell);

  // With a session bus the first dispatcher takes the deliveries of later
  // ones. A later one whose delivery meets the first one going away handles
  // the delivery itself rather than lose it.
  const auto unique = static_cast<GApplicationFlags>(G_APPLICATION_HANDLES_COMMAND_LINE |
                                                     G_APPLICATION_SEND_ENVIRONMENT);
  CreateApplication(&shell, unique);
  bool registered = g_application_register(shell.application, nullptr, nullptr);
  const bool forwarding = registered && g_application_get_is_remote(shell.application);
  int status = registered ? g_application_run(shell.application, argc, argv) : 1;
  if (!registered || (forwarding && status != 0)) {
    LOG(ERROR) << "The running dispatcher did not take this delivery; handling it in this process.";
    g_object_unref(shell.application);
    CreateApplication(&shell, static_cast<GApplicationFlags>(unique | G_APPLICATION_NON_UNIQUE));
    status = g_application_run(shell.application, argc, argv);
  }
  g_object_unref(shell.application);
  return status;
}
