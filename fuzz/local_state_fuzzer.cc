// Arbitrary bytes as Local State: the reader must never crash, and whatever
// policy it finds must classify URLs without crashing (patterns reported,
// not aborted on, as the administrator's tool does).
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  logging::SetLogMessageHandler(&Swallow);
  logging::SetMinimumLogLevel(-1);
  FILE* file = fopen(ScratchFile().c_str(), "wb");
  if (!file) return 0;
  fwrite(data, 1, size, file);
  fclose(file);

  dispatcher::LocalStatePolicy policy = dispatcher::ReadLocalStatePolicy(base::FilePath(ScratchFile()));
  if (policy.status != dispatcher::LocalStateStatus::kParsed &&
      (policy.policy_urls || policy.non_work_browser_url)) {
    __builtin_trap();  // a failed read must leave the policy empty
  }
  for (const char* url : {"https://intra.corp.test/app/", "http://x/", "wss://a:1/b?c#d", "http:"}) {
    dispatcher::ClassifyUrl(policy.policy_urls, url, dispatcher::InvalidPatternHandling::kReport);
  }
  return 0;
}
