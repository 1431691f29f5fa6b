// Reading the policy from Local State files of realistic shape: mostly
// unrelated browser state, with the work URL rules somewhere inside.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "base/files/file_path.h"
#include "base/logging.h"
#include "dispatcher/local_state.h"

namespace {

bool SwallowLine(int, const char*, int, size_t, const std::string&) { return true; }

// One profile entry of the kind a browser keeps by the hundred: nested
// objects, numbers, booleans, escapes and non-ASCII text.
std::string ProfileEntry(int n) {
  std::string id = std::to_string(n);
  return "\"Profile " + id + "\": {\"active_time\": 1700000" + id +
         ".25, \"avatar_icon\": \"chrome://theme/IDR_PROFILE_AVATAR_" + id +
         "\", \"background_apps\": false, \"gaia_id\": \"10" + id +
         "\", \"is_consented_primary_account\": true, \"is_ephemeral\": false, "
         "\"managed_user_id\": \"\", \"name\": \"Person \\u00e9 " +
         id +
         "\", \"shortcut_name\": \"Jos\xc3\xa9 " + id +
         "\", \"user_name\": \"user" + id +
         "@corp.test\", \"hosted_domain\": \"corp.test\", "
         "\"metrics_bucket_index\": " +
         id +
         ", \"signin\": {\"with_credential_provider\": false, \"history\": [1, 2.5, -3e4, null, "
         "\"x\\\"y\\\\z\\n\"]}}";
}

std::string Rules(int count) {
  std::string rules = "[";
  for (int i = 0; i < count; ++i) {
    if (i > 0) rules += ", ";
    std::string id = std::to_string(i);
    rules += "{\"name\": \"rule " + id + "\", \"patterns\": [\"*.app" + id +
             ".corp.test/*\", \"corp.test/app" + id + "/*\", \"*/tools" + id + "/*\"]}";
  }
  return rules + "]";
}

// A document of at least `size` bytes.
std::string MakeLocalState(size_t size) {
  std::string head =
      "{\"browser\": {\"browserPathForNonWorkLinks\": "
      "\"file:///usr/share/applications/other-browser.desktop\", "
      "\"enabled_labs_experiments\": [\"a@1\", \"b@2\"], \"has_seen_welcome_page\": true}, "
      "\"hardware_acceleration_mode_previous\": true, "
      "\"profile\": {\"last_used\": \"Default\", \"info_cache\": {";
  std::string tail =
      "}}, \"kel_prefs\": {\"device_id\": \"5f1c\", \"policy\": {\"cloud_policy_refresh\": "
      "10800, \"browser_urls\": " +
      Rules(40) +
      "}}, \"user_experience_metrics\": {\"low_entropy_source3\": 4711, \"stability\": "
      "{\"exited_cleanly\": true, \"stats_version\": \"120.0.1\"}}}";
  std::string body;
  for (int n = 0; head.size() + body.size() + tail.size() < size; ++n) {
    if (n > 0) body += ", ";
    body += ProfileEntry(n);
  }
  return head + body + tail;
}

class LocalStateFile {
 public:
  explicit LocalStateFile(size_t size) {
    char dir[] = "/tmp/corvane_local_state_bench.XXXXXX";
    if (!mkdtemp(dir)) return;
    dir_ = dir;
    path_ = dir_ + "/Local State";
    std::string data = MakeLocalState(size);
    FILE* file = fopen(path_.c_str(), "wb");
    if (!file) return;
    ok_ = fwrite(data.data(), 1, data.size(), file) == data.size();
    ok_ = (fclose(file) == 0) && ok_;
    bytes_ = data.size();
  }
  ~LocalStateFile() {
    if (!path_.empty()) unlink(path_.c_str());
    if (!dir_.empty()) rmdir(dir_.c_str());
  }
  bool ok() const { return ok_; }
  const std::string& path() const { return path_; }
  size_t bytes() const { return bytes_; }

 private:
  std::string dir_;
  std::string path_;
  size_t bytes_ = 0;
  bool ok_ = false;
};

void BM_ReadLocalStatePolicy(benchmark::State& state) {
  LocalStateFile file(static_cast<size_t>(state.range(0)));
  if (!file.ok()) {
    state.SkipWithError("cannot write the Local State file");
    return;
  }
  logging::SetLogMessageHandler(&SwallowLine);
  base::FilePath path(file.path());
  size_t rules = 0;
  for (auto _ : state) {
    dispatcher::LocalStatePolicy policy = dispatcher::ReadLocalStatePolicy(path);
    rules = policy.policy_urls ? policy.policy_urls->size() : 0;
    benchmark::DoNotOptimize(policy);
  }
  logging::SetLogMessageHandler(nullptr);
  if (rules != 40) state.SkipWithError("the policy was not read");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(file.bytes()));
  state.counters["file_bytes"] = static_cast<double>(file.bytes());
  // The process's peak so far; the sizes run in rising order, so for the
  // largest it is that read's (plus the document generated for the file).
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  state.counters["peak_rss_mb"] = static_cast<double>(usage.ru_maxrss) / 1024;
}

BENCHMARK(BM_ReadLocalStatePolicy)
    ->Arg(10 << 10)
    ->Arg(100 << 10)
    ->Arg(1 << 20)
    ->Arg(5 << 20)
    ->Arg(100 << 20)  // far beyond real files: must stay a matter of seconds
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
