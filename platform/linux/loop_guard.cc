#include "platform/linux/loop_guard.h"

#include <glib.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string_view>

#include "base/files/file_path.h"
#include "base/files/file_util.h"
#include "platform/linux/linux_workspace.h"

namespace dispatcher::linux_shell {

namespace {

constexpr std::string_view kDesktopEntrySuffix = ".desktop";
// Wrapper scripts are short; a longer file is taken for none and not read.
constexpr size_t kScriptReadLimit = 64 * 1024;
// Depths beyond this mean the same: the loop runs through the work browser.
constexpr int kDepthLimit = 8;

struct OwnExecutable {
  bool known = false;
  dev_t device = 0;
  ino_t inode = 0;
  std::string base_name;
};

const OwnExecutable& Self() {
  static const OwnExecutable self = [] {
    OwnExecutable own;
    struct stat st;
    if (stat("/proc/self/exe", &st) == 0) {
      own.known = true;
      own.device = st.st_dev;
      own.inode = st.st_ino;
    }
    char target[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", target, sizeof(target) - 1);
    if (length > 0) {
      std::string_view path(target, static_cast<size_t>(length));
      own.base_name = std::string(path.substr(path.rfind('/') + 1));
    }
    return own;
  }();
  return self;
}

std::string_view BaseName(std::string_view path) {
  size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool IsOwnExecutable(const std::string& path) {
  const OwnExecutable& self = Self();
  struct stat st;
  return self.known && !path.empty() && stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
         st.st_dev == self.device && st.st_ino == self.inode;
}

// A word that names our executable: a path to it, or our executable's own
// name as found on PATH.
bool WordNamesOwnExecutable(std::string_view word) {
  if (word.find('/') != std::string_view::npos) return IsOwnExecutable(std::string(word));
  if (word.empty() || word != Self().base_name) return false;
  gchar* found = g_find_program_in_path(std::string(word).c_str());
  bool own = found && IsOwnExecutable(found);
  g_free(found);
  return own;
}

// Whether any word of a command or script names our executable. Words are
// split roughly as a shell would: at blanks, quotes and operators.
bool TextNamesOwnExecutable(std::string_view text) {
  constexpr std::string_view kSeparators = " \t\r\n\"'`;&|()<>={}$\\";
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find_first_of(kSeparators, start);
    if (end == std::string_view::npos) end = text.size();
    if (end > start && WordNamesOwnExecutable(text.substr(start, end - start))) return true;
    start = end + 1;
  }
  return false;
}

// A script ("#!" first) that names our executable anywhere, its interpreter
// line included.
bool ScriptRunsOwnExecutable(const std::string& path) {
  std::string text;
  return base::ReadRegularFileToString(base::FilePath(path), &text, kScriptReadLimit) && text.starts_with("#!") &&
         TextNamesOwnExecutable(std::string_view(text).substr(2));
}

bool ProgramRunsOwnExecutable(const std::string& path) {
  return IsOwnExecutable(path) || ScriptRunsOwnExecutable(path);
}

// An entry of our name (also behind a link), or one whose command runs us:
// its program, a wrapper script that is its program, or a word of its
// arguments ("env ... corvane-dispatcher", "sh -c '...'").
bool EntryRunsOwnExecutable(const std::string& path) {
  if (BaseName(path) == kDispatcherDesktopId) return true;
  char* resolved = realpath(path.c_str(), nullptr);
  bool ours = resolved && BaseName(resolved) == kDispatcherDesktopId;
  free(resolved);
  if (ours) return true;

  GKeyFile* file = LoadKeyFile(path);
  bool runs = false;
  if (file) {
    gchar* exec = g_key_file_get_string(file, G_KEY_FILE_DESKTOP_GROUP, G_KEY_FILE_DESKTOP_KEY_EXEC,
                                        nullptr);
    gint argc = 0;
    gchar** argv = nullptr;
    if (exec && g_shell_parse_argv(exec, &argc, &argv, nullptr) && argc > 0) {
      gchar* program = g_find_program_in_path(argv[0]);
      runs = program && ProgramRunsOwnExecutable(program);
      g_free(program);
      for (gint i = 1; !runs && i < argc; ++i) runs = TextNamesOwnExecutable(argv[i]);
    }
    g_strfreev(argv);
    g_free(exec);
    g_key_file_free(file);
  }
  return runs;
}

long long BootClockMilliseconds() {
  // The boot clock runs through suspend, so a mark never looks younger
  // than it is.
  struct timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// When process `pid` started, in clock ticks after boot (field 22 of
// /proc/<pid>/stat): with the id it names one process, never a later one
// that reuses the id. nullopt when no such process runs (a zombie has ended).
std::optional<unsigned long long> ProcessStartTime(long long pid) {
  std::string stat;
  if (!base::ReadRegularFileToString(base::FilePath("/proc/" + std::to_string(pid) + "/stat"), &stat, 4096)) {
    return std::nullopt;
  }
  // The command name, in parentheses, may hold blanks and ")" itself.
  size_t name_end = stat.rfind(')');
  char state = 0;
  unsigned long long start = 0;
  // After the name: the state (field 3), fields 4 to 21, the start time.
  constexpr char kFields[] = " %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d %llu";
  if (name_end == std::string::npos || sscanf(stat.c_str() + name_end + 1, kFields, &state, &start) != 2 ||
      state == 'Z' || state == 'X') {
    return std::nullopt;
  }
  return start;
}

}  // namespace

bool PathStartsThisDispatcher(const std::string& path) {
  if (path.ends_with(kDesktopEntrySuffix)) return EntryRunsOwnExecutable(path);
  return ProgramRunsOwnExecutable(path);
}

std::string LaunchMarkerNow(int delivery_loop_depth) {
  return std::to_string(getpid()) + " " + std::to_string(ProcessStartTime(getpid()).value_or(0)) + " " +
         std::to_string(BootClockMilliseconds()) + " " + std::to_string(std::min(delivery_loop_depth, kDepthLimit) + 1);
}

int LaunchLoopDepth(const std::optional<std::string>& marker) {
  if (!marker) return 0;
  long long marker_pid = 0;
  unsigned long long started = 0;
  long long made = 0;
  int depth = 0;
  char rest = 0;
  if (sscanf(marker->c_str(), "%lld %llu %lld %d%c", &marker_pid, &started, &made, &depth, &rest) != 4 ||
      marker_pid <= 0 || depth <= 0) {
    return 0;
  }
  long long age = BootClockMilliseconds() - made;
  if (age < 0 || age > kLaunchMarkerFreshMilliseconds) return 0;
  // Only dispatchers make marks, any copy or install of one: the process
  // that made this one is all that must still run.
  std::optional<unsigned long long> running_since = ProcessStartTime(marker_pid);
  return running_since && *running_since == started ? depth : 0;
}

}  // namespace dispatcher::linux_shell
