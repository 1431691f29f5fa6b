#include "platform/linux/linux_workspace.h"

#include <dirent.h>
#include <fcntl.h>
#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <string_view>
#include <utility>

#include "base/files/file_path.h"
#include "base/files/file_util.h"
#include "dispatcher/url.h"
#include "platform/linux/loop_guard.h"

namespace dispatcher::linux_shell {

namespace {

constexpr char kDesktopEntrySuffix[] = ".desktop";
// A desktop entry is a few kilobytes; a file of megabytes is taken for none
// rather than read on every click.
constexpr size_t kKeyFileReadLimit = 1024 * 1024;
// How long a browser started over the session bus may take to answer the
// request to open a URL; the dispatcher then stops waiting, though the
// browser may still open it.
constexpr guint kBusAnswerMilliseconds = 3000;

std::optional<std::string> GetEnvironmentVariable(const char* name) {
  const char* value = getenv(name);
  if (!value) return std::nullopt;
  return std::string(value);
}

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// A launch whose outcome is known when OpenUrl returns completes at once:
// that URL counts as handed to its browser before the next one is launched,
// which a later dispatcher waiting on this one learns without delay.
void Complete(Workspace::Completion completion, bool succeeded) {
  if (completion) completion(succeeded ? Workspace::Outcome::kStarted : Workspace::Outcome::kFailed);
}

// Whether GIO starts the entry over the session bus (org.freedesktop.Application)
// rather than through its Exec line: it does for a D-Bus-activatable entry
// whose file name is a bus name, when there is a session bus.
bool StartsOverSessionBus(GDesktopAppInfo* info) {
  if (!g_desktop_app_info_get_boolean(info, "DBusActivatable")) return false;
  const char* filename = g_desktop_app_info_get_filename(info);
  if (!filename) return false;
  std::string name = filename;
  name = name.substr(name.rfind('/') + 1);
  if (!EndsWith(name, kDesktopEntrySuffix)) return false;
  name.resize(name.size() - strlen(kDesktopEntrySuffix));
  if (!g_dbus_is_name(name.c_str()) || name[0] == ':') return false;
  GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  if (!bus) return false;
  g_object_unref(bus);
  return true;
}

// Whether `program` is found as GIO looks for one: a path, or a name in PATH.
bool ProgramFound(const char* program) {
  gchar* path = g_find_program_in_path(program);
  const bool found = path != nullptr;
  g_free(path);
  return found;
}

// Whether the program of an Exec line is found. The line is parsed with shell
// quoting because entries may quote a program path that contains blanks.
bool ExecProgramFound(const char* exec) {
  gint argc = 0;
  gchar** argv = nullptr;
  bool found = g_shell_parse_argv(exec, &argc, &argv, nullptr) && argc > 0 && ProgramFound(argv[0]);
  g_strfreev(argv);
  return found;
}

// GIO's launch helper reports success as soon as it runs, even when the
// entry's program has gone, so a vanished program must be caught here for
// the retry to happen. (Over the session bus no program on disk is needed,
// and GIO reports a failed activation.)
bool DesktopEntryProgramIsRunnable(GDesktopAppInfo* info) {
  gchar* exec = g_desktop_app_info_get_string(info, "Exec");
  bool runnable = exec && ExecProgramFound(exec);
  g_free(exec);
  return runnable;
}

// A launch context that gives GIO the delivery's activation token. GIO asks
// for it when the entry declares StartupNotify=true, and hands it on as
// DESKTOP_STARTUP_ID to an entry it spawns or as "desktop-startup-id" in the
// platform data of one it activates over the session bus, which no
// environment variable of ours reaches.
struct TokenLaunchContext {
  GAppLaunchContext parent_instance;
  gchar* token;
};
struct TokenLaunchContextClass {
  GAppLaunchContextClass parent_class;
};
G_DEFINE_TYPE(TokenLaunchContext, token_launch_context, G_TYPE_APP_LAUNCH_CONTEXT)

char* TokenLaunchContextStartupNotifyId(GAppLaunchContext* context, GAppInfo*, GList*) {
  return g_strdup(reinterpret_cast<TokenLaunchContext*>(context)->token);
}

void TokenLaunchContextFinalize(GObject* object) {
  g_free(reinterpret_cast<TokenLaunchContext*>(object)->token);
  G_OBJECT_CLASS(token_launch_context_parent_class)->finalize(object);
}

void token_launch_context_class_init(TokenLaunchContextClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = TokenLaunchContextFinalize;
  G_APP_LAUNCH_CONTEXT_CLASS(klass)->get_startup_notify_id = TokenLaunchContextStartupNotifyId;
}

void token_launch_context_init(TokenLaunchContext* context) { context->token = nullptr; }

struct DesktopLaunch {
  std::string url;
  Workspace::Completion completion;
  // The one-element list handed to GIO, alive until the launch finishes.
  GList uris = {};
  // Ends the wait for a browser that does not answer.
  GCancellable* cancellable = g_cancellable_new();
  guint answer_timeout = 0;
};

gboolean StopWaitingForAnswer(gpointer data) {
  auto* launch = static_cast<DesktopLaunch*>(data);
  launch->answer_timeout = 0;
  g_cancellable_cancel(launch->cancellable);
  return G_SOURCE_REMOVE;
}

void OnDesktopLaunchFinished(GObject* source, GAsyncResult* result, gpointer data) {
  auto* launch = static_cast<DesktopLaunch*>(data);
  GError* error = nullptr;
  g_app_info_launch_uris_finish(G_APP_INFO(source), result, &error);
  Workspace::Outcome outcome = Workspace::Outcome::kStarted;
  if (error) {
    // Only the timeout cancels, once the request has gone out to the browser.
    outcome = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED) ? Workspace::Outcome::kNoAnswerYet
                                                                       : Workspace::Outcome::kFailed;
    g_debug("Could not start the desktop entry: %s", error->message);
    g_error_free(error);
  }
  if (launch->answer_timeout) g_source_remove(launch->answer_timeout);
  g_object_unref(launch->cancellable);
  if (launch->completion) launch->completion(outcome);
  delete launch;
}

enum class DesktopFileLoad { kUnloadable, kHidden, kVisible };

// Whether GIO would load the desktop file at `path` as an application, and
// whether it is hidden: the tests of GIO's loader, which skips a file that
// fails them and goes on to the next folder. Anything but a regular file is
// skipped too, where GIO's loader would wait for a FIFO's writer.
DesktopFileLoad LoadDesktopFile(const char* path) {
  GKeyFile* file = LoadKeyFile(path);
  DesktopFileLoad load = DesktopFileLoad::kUnloadable;
  gchar* start_group = nullptr;
  gchar* type = nullptr;
  gchar* try_exec = nullptr;
  gchar* exec = nullptr;
  if (file &&
      (start_group = g_key_file_get_start_group(file)) != nullptr &&
      strcmp(start_group, G_KEY_FILE_DESKTOP_GROUP) == 0 &&
      (type = g_key_file_get_string(file, G_KEY_FILE_DESKTOP_GROUP, G_KEY_FILE_DESKTOP_KEY_TYPE, nullptr)) &&
      strcmp(type, G_KEY_FILE_DESKTOP_TYPE_APPLICATION) == 0) {
    try_exec = g_key_file_get_string(file, G_KEY_FILE_DESKTOP_GROUP, G_KEY_FILE_DESKTOP_KEY_TRY_EXEC, nullptr);
    exec = g_key_file_get_string(file, G_KEY_FILE_DESKTOP_GROUP, G_KEY_FILE_DESKTOP_KEY_EXEC, nullptr);
    bool loads = !try_exec || !*try_exec || ProgramFound(try_exec);
    if (loads && exec && *exec) loads = ExecProgramFound(exec);
    if (loads) {
      load = g_key_file_get_boolean(file, G_KEY_FILE_DESKTOP_GROUP, G_KEY_FILE_DESKTOP_KEY_HIDDEN, nullptr)
                 ? DesktopFileLoad::kHidden
                 : DesktopFileLoad::kVisible;
    }
  }
  g_free(exec);
  g_free(try_exec);
  g_free(type);
  g_free(start_group);
  if (file) g_key_file_free(file);
  return load;
}

// GIO sees the files of a folder that it can list.
bool FolderIsListable(const char* path) {
  DIR* folder = opendir(path);
  if (folder) closedir(folder);
  return folder != nullptr;
}

void ReapChild(GPid pid, gint /*status*/, gpointer /*data*/) { g_spawn_close_pid(pid); }

void WatchDesktopEntryChild(GDesktopAppInfo*, GPid pid, gpointer) { g_child_watch_add(pid, ReapChild, nullptr); }

// Starts `path` with the URL as its only argument, without a shell and
// without any fallback: unlike GLib's spawn functions, which hand a file the
// kernel refuses (ENOEXEC) to /bin/sh, a text file that is not a script must
// fail here. Returns the errno of the failed exec, 0 on success.
int SpawnBrowser(const std::string& path, const std::string& url, gchar** envp) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attributes);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  // Descriptors the dispatcher holds (its log file among them) stay here.
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  sigset_t empty_mask;
  sigset_t all_signals;
  sigemptyset(&empty_mask);
  sigfillset(&all_signals);
  posix_spawnattr_setsigmask(&attributes, &empty_mask);
  posix_spawnattr_setsigdefault(&attributes, &all_signals);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  std::string program = path;
  std::string argument = url;
  char* argv[] = {program.data(), argument.data(), nullptr};
  pid_t pid = 0;
  int result = posix_spawn(&pid, program.c_str(), &actions, &attributes, argv, envp);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (result == 0) {
    // The child is ours to reap; a browser that exits while the dispatcher
    // still runs must not linger as a zombie.
    g_child_watch_add(pid, ReapChild, nullptr);
  }
  return result;
}

}  // namespace

GKeyFile* LoadKeyFile(const std::string& path) {
  std::string data;
  GKeyFile* file = g_key_file_new();
  if (base::ReadRegularFileToString(base::FilePath(path), &data, kKeyFileReadLimit) &&
      g_key_file_load_from_data(file, data.data(), data.size(), G_KEY_FILE_NONE, nullptr)) {
    return file;
  }
  g_key_file_free(file);
  return nullptr;
}

std::optional<std::string> FindDesktopFile(const char* desktop_id) {
  std::vector<const gchar*> data_folders = {g_get_user_data_dir()};
  for (const gchar* const* folder = g_get_system_data_dirs(); *folder; ++folder) data_folders.push_back(*folder);
  for (const gchar* data_folder : data_folders) {
    // The same text as GIO's path of the file, so that the same file URL follows.
    gchar* applications = g_build_filename(data_folder, "applications", nullptr);
    gchar* path = g_build_filename(applications, desktop_id, nullptr);
    DesktopFileLoad load = LoadDesktopFile(path);
    bool found = load != DesktopFileLoad::kUnloadable && FolderIsListable(applications);
    std::optional<std::string> result;
    if (found && load == DesktopFileLoad::kVisible) result = std::string(path);
    g_free(path);
    g_free(applications);
    // The first folder that has a loadable file decides, hidden or not.
    if (found) return result;
  }
  return std::nullopt;
}

LaunchEnvironment CaptureLaunchEnvironment() {
  LaunchEnvironment environment;
  environment.xdg_activation_token = GetEnvironmentVariable("XDG_ACTIVATION_TOKEN");
  environment.desktop_startup_id = GetEnvironmentVariable("DESKTOP_STARTUP_ID");
  environment.original_gio_use_vfs = GetEnvironmentVariable("GIO_USE_VFS");
  environment.launch_marker = GetEnvironmentVariable(kLaunchMarkerVariable);
  return environment;
}

LinuxWorkspace::LinuxWorkspace(LaunchEnvironment environment)
    : environment_(std::move(environment)) {}

LinuxWorkspace::~LinuxWorkspace() = default;

void LinuxWorkspace::SetActivationTokens(std::optional<std::string> xdg_activation_token,
                                         std::optional<std::string> desktop_startup_id) {
  std::lock_guard<std::mutex> lock(mutex_);
  environment_.xdg_activation_token = std::move(xdg_activation_token);
  environment_.desktop_startup_id = std::move(desktop_startup_id);
}

void LinuxWorkspace::SetDeliveryLoopDepth(int depth) {
  std::lock_guard<std::mutex> lock(mutex_);
  delivery_loop_depth_ = depth;
}

bool LinuxWorkspace::CanOpenUrls() { return true; }

static_assert(std::string_view(kWorkBrowserDesktopId).find('-') == std::string_view::npos,
              "FindDesktopFile does not map ids to subfolders");

std::optional<Url> LinuxWorkspace::WorkBrowserLocation() {
  std::optional<std::string> filename = FindDesktopFile(kWorkBrowserDesktopId);
  if (!filename) return std::nullopt;
  std::optional<Url> location;
  gchar* uri = g_filename_to_uri(filename->c_str(), nullptr, nullptr);
  if (uri) location = std::string(uri);
  g_free(uri);
  return location;
}

std::optional<std::string> LinuxWorkspace::StartablePath(const Url& location) {
  UrlParts parts = SplitUrl(location.spec);
  if (parts.scheme && g_ascii_strcasecmp(std::string(*parts.scheme).c_str(), "file") != 0) {
    return std::nullopt;
  }
  if (parts.authority && !parts.authority->empty() &&
      g_ascii_strcasecmp(std::string(*parts.authority).c_str(), "localhost") != 0) {
    return std::nullopt;
  }
  std::optional<std::string> path = UrlPath(location.spec);
  if (!path || !path->starts_with('/')) return std::nullopt;
  return path;
}

bool LinuxWorkspace::StartsThisDispatcher(const Url& location) {
  std::optional<std::string> path = StartablePath(location);
  return path && PathStartsThisDispatcher(*path);
}

std::vector<std::pair<std::string, std::optional<std::string>>>
LinuxWorkspace::BrowserEnvironmentChanges() {
  std::lock_guard<std::mutex> lock(mutex_);
  return {
      // Set by GIO when it started us; GIO sets its own for an entry it
      // launches, and a plainly started browser must not inherit ours.
      {"GIO_LAUNCHED_DESKTOP_FILE", std::nullopt},
      {"GIO_LAUNCHED_DESKTOP_FILE_PID", std::nullopt},
      // The dispatcher forces local URI handling on itself only.
      {"GIO_USE_VFS", environment_.original_gio_use_vfs},
      // Tokens are single-use: pass this delivery's, never a stale one.
      {"XDG_ACTIVATION_TOKEN", environment_.xdg_activation_token},
      {"DESKTOP_STARTUP_ID", environment_.desktop_startup_id},
      // Lets a dispatcher that this launch starts after all see the loop.
      {kLaunchMarkerVariable, LaunchMarkerNow(delivery_loop_depth_)},
  };
}

void LinuxWorkspace::OpenUrl(const Url& url, const std::optional<Url>& application,
                             Completion completion) {
  std::optional<std::string> path;
  if (application) path = StartablePath(*application);
  if (!path) {
    Complete(std::move(completion), false);
    return;
  }
  auto changes = BrowserEnvironmentChanges();

  if (EndsWith(*path, kDesktopEntrySuffix)) {
    // GIO's loader would wait for a writer of a FIFO: only a regular file
    // gets that far.
    struct stat st;
    GDesktopAppInfo* info = stat(path->c_str(), &st) == 0 && S_ISREG(st.st_mode)
                                ? g_desktop_app_info_new_from_filename(path->c_str())
                                : nullptr;
    const bool over_session_bus = info && StartsOverSessionBus(info);
    if (!info || (!over_session_bus && !DesktopEntryProgramIsRunnable(info))) {
      if (info) g_object_unref(info);
      Complete(std::move(completion), false);
      return;
    }
    // The startup identifier of X11 when there is one, else the Wayland
    // token: desktops that set both give them the same value.
    std::optional<std::string> token;
    for (const auto& [name, value] : changes) {
      if (value && (name == "DESKTOP_STARTUP_ID" || (name == "XDG_ACTIVATION_TOKEN" && !token))) token = value;
    }
    auto* context = static_cast<GAppLaunchContext*>(g_object_new(token_launch_context_get_type(), nullptr));
    reinterpret_cast<TokenLaunchContext*>(context)->token = token ? g_strdup(token->c_str()) : nullptr;
    for (const auto& [name, value] : changes) {
      if (value)
        g_app_launch_context_setenv(context, name.c_str(), value->c_str());
      else
        g_app_launch_context_unsetenv(context, name.c_str());
    }
    if (over_session_bus) {
      // Only the asynchronous launch waits for the activation's answer, and
      // only so long: a browser that never answers would hold the
      // dispatcher for the bus's own timeout.
      auto* launch = new DesktopLaunch{url.spec, std::move(completion)};
      launch->uris.data = launch->url.data();
      launch->answer_timeout = g_timeout_add(kBusAnswerMilliseconds, StopWaitingForAnswer, launch);
      g_app_info_launch_uris_async(G_APP_INFO(info), &launch->uris, context, launch->cancellable,
                                   OnDesktopLaunchFinished, launch);
    } else {
      // GIO's launch as the asynchronous one makes it, except that the
      // browser is started as our child, reaped like the programs started
      // directly, rather than through an intermediate process: a fork fewer
      // for a click. Success means the entry's program was started.
      std::string uri = url.spec;
      GList uris = {uri.data(), nullptr, nullptr};
      GError* error = nullptr;
      bool started = g_desktop_app_info_launch_uris_as_manager_with_fds(
          info, &uris, context, static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD), nullptr,
          nullptr, WatchDesktopEntryChild, nullptr, -1, -1, -1, &error);
      if (error) {
        g_debug("Could not start the desktop entry: %s", error->message);
        g_error_free(error);
      }
      Complete(std::move(completion), started);
    }
    g_object_unref(context);
    g_object_unref(info);
    return;
  }

  gchar** envp = g_get_environ();
  for (const auto& [name, value] : changes) {
    if (value)
      envp = g_environ_setenv(envp, name.c_str(), value->c_str(), TRUE);
    else
      envp = g_environ_unsetenv(envp, name.c_str());
  }
  int spawn_error = SpawnBrowser(*path, url.spec, envp);
  g_strfreev(envp);
  if (spawn_error != 0) g_debug("Could not start %s: %s", path->c_str(), g_strerror(spawn_error));
  Complete(std::move(completion), spawn_error == 0);
}

}  // namespace dispatcher::linux_shell
