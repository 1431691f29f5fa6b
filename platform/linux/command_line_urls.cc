#include "platform/linux/command_line_urls.h"

#include <glib.h>

#include "base/files/file_path.h"
#include "base/files/file_util.h"
#include "base/logging.h"
#include "dispatcher/url.h"

namespace dispatcher::linux_shell {

std::vector<std::string> UrlsFromCommandLine(const std::vector<std::string>& arguments,
                                             const std::string& working_directory) {
  std::vector<std::string> urls;
  for (const std::string& argument : arguments) {
    if (HasUrlScheme(argument)) {
      urls.push_back(argument);
      continue;
    }
    std::string path = argument;
    if (!path.empty() && path[0] != '/') {
      path = base::AppendPath(base::FilePath(working_directory), argument).value();
    }
    if (!argument.empty() && base::PathExists(base::FilePath(path))) {
      gchar* canonical = g_canonicalize_filename(path.c_str(), nullptr);
      gchar* uri = g_filename_to_uri(canonical, nullptr, nullptr);
      g_free(canonical);
      if (uri) {
        urls.emplace_back(uri);
        g_free(uri);
        continue;
      }
    }
    LOG(ERROR) << "Refused a command-line argument that is neither a URL nor an existing path: "
               << argument;
  }
  return urls;
}

}  // namespace dispatcher::linux_shell
