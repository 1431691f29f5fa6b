// Command-line strings as the Linux shell turns them into URLs, and location
// URLs as the launcher takes their path: never a crash, no argument reaches a
// browser unless it is a URL (never as an option), and a path is only ever
// what the URL spells.
//
// Input: the arguments, each behind a NUL byte. They are resolved against a
// scratch folder that holds a file "f", a folder "d" and a link "l" to "f".
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/logging.h"
#include "dispatcher/unicode.h"
#include "dispatcher/url.h"
#include "platform/linux/command_line_urls.h"

namespace {

int g_refusals = 0;

bool CountRefusals(int severity, const char*, int, size_t, const std::string&) {
  g_refusals += severity == logging::LOG_ERROR;
  return true;
}

const std::string& ScratchFolder() {
  static std::string* folder = [] {
    char name[] = "/tmp/corvane-command-line-fuzz-XXXXXX";
    std::string* path = new std::string(mkdtemp(name) ? name : "/tmp");
    if (FILE* file = fopen((*path + "/f").c_str(), "w")) fclose(file);
    mkdir((*path + "/d").c_str(), 0755);
    if (symlink("f", (*path + "/l").c_str()) != 0) {
      // Already there.
    }
    return path;
  }();
  return *folder;
}

[[noreturn]] void Fail(const char* what, std::string_view argument) {
  std::fprintf(stderr, "%s\nargument (%zu bytes): %.*s\n", what, argument.size(),
               static_cast<int>(argument.size()), argument.data());
  std::abort();
}

bool IsValidUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    size_t length = static_cast<unsigned char>(text[i]) < 0x80 ? 1 : dispatcher::Utf8SequenceLength(text, i);
    if (length == 0) return false;
    i += length;
  }
  return true;
}

void CheckPath(std::string_view location) {
  std::optional<std::string> path = dispatcher::UrlPath(location);
  if (!path) return;
  if (path->find('\0') != std::string::npos) Fail("a path holds a NUL byte", location);
  if (!IsValidUtf8(*path)) Fail("a path is not UTF-8", location);
  // Without escapes, the path is spelled in the URL as it stands.
  if (location.find('%') == std::string_view::npos && location.find(*path) == std::string_view::npos) {
    Fail("a path that the URL does not spell", location);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> arguments;
  for (size_t start = 0; start <= input.size();) {
    size_t nul = input.find('\0', start);
    if (nul == std::string_view::npos) nul = input.size();
    arguments.emplace_back(input.substr(start, nul - start));
    start = nul + 1;
  }

  logging::SetMinimumLogLevel(-1);
  logging::SetLogMessageHandler(&CountRefusals);
  g_refusals = 0;
  std::vector<std::string> urls = dispatcher::linux_shell::UrlsFromCommandLine(arguments, ScratchFolder());
  logging::SetLogMessageHandler(nullptr);

  // Each argument becomes one URL or one refusal, in order.
  if (urls.size() + static_cast<size_t>(g_refusals) != arguments.size()) Fail("an argument was lost", input);
  const std::set<std::string> given(arguments.begin(), arguments.end());
  for (const std::string& url : urls) {
    if (!dispatcher::HasUrlScheme(url)) Fail("a URL without a scheme", url);
    if (!given.count(url) && url.rfind("file:///", 0) != 0) Fail("neither an argument nor a local file URL", url);
    CheckPath(url);
  }
  for (const std::string& argument : arguments) CheckPath(argument);
  return 0;
}
