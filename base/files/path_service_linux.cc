#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/files/path_service.h"

namespace base::internal {

// The XDG configuration directory: $XDG_CONFIG_HOME when it is absolute,
// else $HOME/.config, else the password database's home plus /.config.
bool PlatformAppDataDirectory(std::string* directory) {
  const char* config_home = getenv("XDG_CONFIG_HOME");
  if (config_home && config_home[0] == '/') {
    *directory = config_home;
    return true;
  }
  const char* home = getenv("HOME");
  if (home && home[0] != '\0') {
    *directory = std::string(home) + "/.config";
    return true;
  }
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
  struct passwd entry;
  struct passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found ||
      !found->pw_dir || found->pw_dir[0] == '\0') {
    return false;
  }
  *directory = std::string(found->pw_dir) + "/.config";
  return true;
}

}  // namespace base::internal
