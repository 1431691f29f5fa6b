// The Linux shell: a GLib main loop that delivers the dispatcher's launch,
// URL deliveries and termination to the one AppDelegate, and the session bus
// that brings it the deliveries of later dispatchers.
//
// No application framework reads the arguments: every one is a URL or a path,
// ours alone (GApplication would take some as its own options). Its
// single-instance forwarding is replaced by platform/linux/delivery_bus.h,
// which bounds the wait and acknowledges each URL.
#include <fcntl.h>
#include <gio/gio.h>
#include <glib-unix.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/files/file_util.h"
#include "base/logging.h"
#include "dispatcher/dispatcher_delegate.h"
#include "dispatcher/dispatcher_main.h"
#include "platform/linux/command_line_urls.h"
#include "platform/linux/delivery_bus.h"
#include "platform/linux/linux_workspace.h"
#include "platform/linux/loop_guard.h"

namespace {

using dispatcher::AppDelegate;
using dispatcher::linux_shell::Delivery;
using dispatcher::linux_shell::DeliveryBus;
using dispatcher::linux_shell::LinuxWorkspace;

// The signals that end a session or a terminal's job. Their handler only
// notes the signal and wakes the main loop, which names what is not done.
constexpr int kEndingSignals[] = {SIGTERM, SIGINT, SIGHUP};
volatile sig_atomic_t g_ending_signal = 0;
int g_signal_pipe[2] = {-1, -1};

void NoteEndingSignal(int signal_number) {
  const int saved_errno = errno;
  if (!g_ending_signal) g_ending_signal = signal_number;
  const char byte = 0;
  ssize_t ignored = write(g_signal_pipe[1], &byte, 1);
  (void)ignored;
  errno = saved_errno;
}

void InstallSignalHandlers() {
  if (!g_unix_open_pipe(g_signal_pipe, FD_CLOEXEC, nullptr)) return;
  // Started with standard descriptors closed, the pipe must not stand in for
  // them: the log would write into it.
  for (int& end : g_signal_pipe) {
    if (end > STDERR_FILENO) continue;
    const int moved = fcntl(end, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(end);
    end = moved;
  }
  if (g_signal_pipe[0] < 0 || g_signal_pipe[1] < 0) return;
  g_unix_set_fd_nonblocking(g_signal_pipe[1], TRUE, nullptr);
  struct sigaction action = {};
  action.sa_handler = NoteEndingSignal;
  action.sa_flags = SA_RESTART;
  sigfillset(&action.sa_mask);
  for (int signal_number : kEndingSignals) {
    // One that our starter ignores (nohup, a shell's background job) stays ignored.
    struct sigaction old = {};
    if (sigaction(signal_number, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) continue;
    sigaction(signal_number, &action, nullptr);
  }
}

const char* SignalName(int signal_number) {
  switch (signal_number) {
    case SIGTERM: return "SIGTERM";
    case SIGINT: return "SIGINT";
    case SIGHUP: return "SIGHUP";
    default: return "a signal";
  }
}

struct Shell;

class MainLoopShell : public dispatcher::ApplicationShell {
 public:
  explicit MainLoopShell(Shell* shell) : shell_(shell) {}
  void Terminate() override;
  void RunOnMainThread(std::function<void()> task, std::chrono::milliseconds delay) override;

 private:
  Shell* shell_;
};

struct Shell {
  GMainLoop* loop = nullptr;
  std::optional<LinuxWorkspace> workspace;
  std::optional<MainLoopShell> application_shell;
  std::optional<AppDelegate> delegate;
  std::optional<DeliveryBus> bus;
  dispatcher::linux_shell::LaunchEnvironment environment;
  // This process's own delivery, and for each argument whether it is out of
  // this shell's hands: passed to the delegate, or seen through by the
  // running dispatcher.
  Delivery own;
  std::vector<bool> own_handed;
  bool started_up = false;
  bool quitting = false;
};

void MainLoopShell::Terminate() {
  // No delivery is taken from here on: a later dispatcher hands its own.
  shell_->quitting = true;
  shell_->bus->StopTaking();
  g_main_loop_quit(shell_->loop);
}

void MainLoopShell::RunOnMainThread(std::function<void()> task, std::chrono::milliseconds delay) {
  g_timeout_add_full(
      G_PRIORITY_DEFAULT, static_cast<guint>(delay.count()),
      [](gpointer data) {
        (*static_cast<std::function<void()>*>(data))();
        return G_SOURCE_REMOVE;
      },
      new std::function<void()>(std::move(task)), [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
}

std::optional<std::string> DeliveryVariable(const Delivery& delivery, const char* name) {
  auto found = delivery.environment.find(name);
  if (found == delivery.environment.end()) return std::nullopt;
  return found->second;
}

// Hands the arguments `which` of `delivery` to the delegate as one delivery;
// `handed(i)` follows for argument i once it is seen through (refused ones
// at once).
void HandleDelivery(Shell& shell, const Delivery& delivery, const std::vector<size_t>& which,
                    const std::function<void(size_t)>& handed) {
  shell.workspace->SetActivationTokens(DeliveryVariable(delivery, "XDG_ACTIVATION_TOKEN"),
                                       DeliveryVariable(delivery, "DESKTOP_STARTUP_ID"));
  const int loop_depth = dispatcher::linux_shell::LaunchLoopDepth(
      DeliveryVariable(delivery, dispatcher::linux_shell::kLaunchMarkerVariable));
  shell.workspace->SetDeliveryLoopDepth(loop_depth);
  const dispatcher::DeliveryOrigin origin =
      loop_depth == 0   ? dispatcher::DeliveryOrigin::kDirect
      : loop_depth == 1 ? dispatcher::DeliveryOrigin::kDispatcherLaunch
                        : dispatcher::DeliveryOrigin::kLoopWorkBrowserLaunch;
  std::vector<dispatcher::Url> urls;
  std::vector<size_t> argument_of_url;
  std::vector<size_t> refused;
  for (size_t argument : which) {
    std::vector<std::string> url =
        dispatcher::linux_shell::UrlsFromCommandLine({delivery.arguments[argument]}, delivery.working_directory);
    if (url.empty()) {
      refused.push_back(argument);
      continue;
    }
    // The text is the whole URL here: no platform object goes with it.
    urls.emplace_back(std::move(url[0]));
    argument_of_url.push_back(argument);
  }
  if (handed) {
    for (size_t argument : refused) handed(argument);
  }
  shell.delegate->applicationOpenURLs(urls, origin, [handed, argument_of_url](size_t url) {
    if (handed) handed(argument_of_url[url]);
  });
}

// The arguments of this process's delivery not yet out of its hands.
std::vector<size_t> OwnArgumentsLeft(const Shell& shell) {
  std::vector<size_t> left;
  for (size_t i = 0; i < shell.own_handed.size(); ++i) {
    if (!shell.own_handed[i]) left.push_back(i);
  }
  return left;
}

gboolean HandleOwnDelivery(gpointer data) {
  auto* shell = static_cast<Shell*>(data);
  std::vector<size_t> left = OwnArgumentsLeft(*shell);
  shell->own_handed.assign(shell->own_handed.size(), true);  // the delegate keeps track from here on
  HandleDelivery(*shell, shell->own, left, nullptr);
  return G_SOURCE_REMOVE;
}

bool TakeDelivery(Shell& shell, const Delivery& delivery, std::function<void(size_t)> handed) {
  if (shell.quitting || g_ending_signal) return false;
  std::vector<size_t> all(delivery.arguments.size());
  for (size_t i = 0; i < all.size(); ++i) all[i] = i;
  HandleDelivery(shell, delivery, all, handed);
  return true;
}

// Ends the process on SIGTERM, SIGINT or SIGHUP, with a line naming every URL
// received and not yet handed to a browser, and by that signal.
gboolean OnEndingSignal(gint, GIOCondition, gpointer data) {
  auto* shell = static_cast<Shell*>(data);
  const int signal_number = g_ending_signal;
  // No delivery is taken from here on; the name goes with the process, whose
  // end must not wait on the bus.
  shell->quitting = true;
  std::vector<dispatcher::Url> unhanded;
  for (size_t argument : OwnArgumentsLeft(*shell)) unhanded.emplace_back(shell->own.arguments[argument]);
  // A dispatcher whose delivery the running one has seen through has nothing
  // to say; otherwise it says it in the log, started or not.
  if (shell->started_up || !unhanded.empty()) {
    if (!shell->started_up) dispatcher::InitializeDispatcherLogging();
    shell->delegate->applicationWillTerminateOnSignal(SignalName(signal_number), std::move(unhanded));
    if (shell->started_up) shell->delegate->applicationWillTerminate();
  }
  shell->bus->Flush();
  signal(signal_number, SIG_DFL);
  raise(signal_number);
  _exit(128 + signal_number);
}

// The start-up of a dispatcher that handles deliveries, never of one that
// only hands its delivery on: that one must leave the log alone.
void StartUp(Shell& shell, bool forwarding_failed) {
  dispatcher::InitializeDispatcherLogging();
  if (forwarding_failed) {
    LOG(ERROR) << "The running dispatcher did not take this delivery; handling it in this process.";
  }
  shell.started_up = true;
  shell.delegate->applicationWillFinishLaunching();
}

}  // namespace

int main(int argc, char** argv) {
  base::EnsureStandardDescriptorsOpen();  // before any file is opened: the log must never be fd 2
  // From here on no URL of ours ends unnamed.
  InstallSignalHandlers();
  // Lives until the process ends: the termination worker and late launch
  // completions still reach it.
  static Shell& shell = *new Shell;
  shell.environment = dispatcher::linux_shell::CaptureLaunchEnvironment();
  for (int i = 1; i < argc; ++i) shell.own.arguments.emplace_back(argv[i]);
  shell.own_handed.assign(shell.own.arguments.size(), false);
  gchar* working_directory = g_get_current_dir();
  shell.own.working_directory = working_directory;
  g_free(working_directory);
  for (const char* name : dispatcher::linux_shell::kDeliveryVariables) {
    if (const char* value = g_getenv(name)) shell.own.environment[name] = value;
  }
  // Our own URI handling stays local: the gvfs daemon would mount remote
  // locations and costs milliseconds per call.
  g_setenv("GIO_USE_VFS", "local", TRUE);

  shell.workspace.emplace(shell.environment);
  shell.application_shell.emplace(&shell);
  shell.delegate.emplace(*shell.workspace, *shell.application_shell);
  shell.loop = g_main_loop_new(nullptr, FALSE);
  if (g_signal_pipe[0] >= 0 && g_signal_pipe[1] >= 0) {
    g_unix_fd_add_full(G_PRIORITY_HIGH, g_signal_pipe[0], G_IO_IN, OnEndingSignal, &shell, nullptr);
  }

  // With a session bus the first dispatcher takes the deliveries of later
  // ones, and only it starts up (log, banner, policy). A later one whose
  // delivery the first does not see through (it is gone, going, stopped or
  // hung) hands the rest itself, with the whole start-up.
  shell.bus.emplace([](const Delivery& delivery, std::function<void(size_t)> handed) {
    return TakeDelivery(shell, delivery, std::move(handed));
  });
  bool forwarding_failed = false;
  if (shell.bus->Join() == DeliveryBus::Role::kLater) {
    if (shell.bus->Forward(shell.own, shell.own_handed)) return 0;
    forwarding_failed = true;
  }
  StartUp(shell, forwarding_failed);
  // After a signal that came during the start-up, which names the delivery.
  g_idle_add(HandleOwnDelivery, &shell);
  g_main_loop_run(shell.loop);
  // Calls that came before the name went are answered: their senders hand
  // their deliveries themselves.
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
  // Acknowledgements and answers still queued would be lost with the
  // process, and their senders would open again what was opened.
  shell.bus->Flush();
  shell.delegate->applicationWillTerminate();
  return 0;
}
