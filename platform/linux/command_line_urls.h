// Turns the strings a command line delivers into URLs.
#ifndef PLATFORM_LINUX_COMMAND_LINE_URLS_H_
#define PLATFORM_LINUX_COMMAND_LINE_URLS_H_

#include <string>
#include <vector>

namespace dispatcher::linux_shell {

// A string with a URL scheme is taken as it is, byte for byte. An existing
// local path (relative ones against `working_directory`) becomes a file://
// URL. Anything else is refused with one ERROR line, so that no browser ever
// receives an argument that it could read as an option.
std::vector<std::string> UrlsFromCommandLine(const std::vector<std::string>& arguments,
                                             const std::string& working_directory);

}  // namespace dispatcher::linux_shell

#endif  // PLATFORM_LINUX_COMMAND_LINE_URLS_H_
