// Arbitrary bytes as Local State: the reader must never crash, must read the
// same wherever its window ends, and whatever policy it finds must classify
// URLs without crashing (patterns reported, not aborted on, as the
// administrator's tool does).
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "base/files/file_path.h"
#include "base/logging.h"
#include "dispatcher/classifier.h"
#include "dispatcher/local_state.h"

namespace {

bool Swallow(int, const char*, int, size_t, const std::string&) { return true; }

const std::string& ScratchFile() {
  static std::string* path = [] {
    char name[] = "/tmp/corvane-local-state-fuzz-XXXXXX";
    int fd = mkstemp(name);
    if (fd >= 0) close(fd);
    return new std::string(name);
  }();
  return *path;
}

// What a read yields, as text.
std::string Summary(const dispatcher::LocalStatePolicy& policy) {
  std::string summary = std::to_string(static_cast<int>(policy.status));
  for (dispatcher::PolicyRules::Rule rule : policy.policy_urls.value_or(dispatcher::PolicyRules())) {
    summary += rule.has_patterns ? "\n[" : "\n-";
    for (dispatcher::PolicyRules::Pattern pattern : rule.patterns) {
      summary += pattern.is_string ? std::string(pattern.text) + "\n" : "-\n";
    }
  }
  return summary + "\n" + policy.non_work_browser_url.value_or("-");
}

dispatcher::LocalStatePolicy Read(const std::string& data) {
  FILE* file = fopen(ScratchFile().c_str(), "wb");
  if (file) {
    fwrite(data.data(), 1, data.size(), file);
    fclose(file);
  }
  return dispatcher::ReadLocalStatePolicy(base::FilePath(ScratchFile()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  logging::SetLogMessageHandler(&Swallow);
  logging::SetMinimumLogLevel(-1);
  std::string input(reinterpret_cast<const char*>(data), size);
  dispatcher::LocalStatePolicy policy = Read(input);
  if (policy.status != dispatcher::LocalStateStatus::kParsed &&
      (policy.policy_urls || policy.non_work_browser_url)) {
    __builtin_trap();  // a failed read must leave the policy empty
  }
  for (const char* url : {"https://intra.corp.test/app/", "http://x/", "wss://a:1/b?c#d", "http:"}) {
    dispatcher::ClassifyUrl(policy.policy_urls, url, dispatcher::InvalidPatternHandling::kReport);
  }
  // The file is read a window at a time. Behind blanks that put the end of
  // the first window at one of its offsets, the input reads the same (unless
  // it starts with a byte order mark, which counts only at the start).
  if (size > 0 && !input.starts_with("\xEF\xBB\xBF")) {
    size_t cut = (data[0] + size * 31) % size;
    if (Summary(Read(std::string(dispatcher::kLocalStateWindowBytes - cut, ' ') + input)) != Summary(policy)) {
      __builtin_trap();
    }
  }
  return 0;
}
