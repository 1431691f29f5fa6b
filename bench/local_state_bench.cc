// Reading the policy from Local State files: the time per read for files of
// realistic shape (mostly unrelated browser state, the work URL rules
// somewhere inside), then, per file shape and size, each in a fresh process,
// the peak memory and time of one read, and the peak of the whole process
// once the dispatcher's classifier holds the policy and has classified a URL
// that is not a web URL (no pattern reached) and a work URL (the first
// pattern reached), then a web URL that reaches every pattern.
//
// Figures on the 2-core development machine for 100 MB files: the whole
// process's peak above an empty object's, per byte of the file, after the
// first two URLs and after the third (when every pattern was a std::string
// and prepared up front, the first figure was already the whole):
//   one rule's patterns     1.00  1.52   (was 6.1)
//   short patterns ("x*")   1.20  1.83   (was 24: 2.35 GB)
//   rules of 1 pattern      0.72  1.10   (was 4.8)
//   the other shapes        0.00  0.00   (the reader's window)
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/files/file_path.h"
#include "base/logging.h"
#include "dispatcher/classifier.h"
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

std::string Pattern(int n) { return "\"*.app" + std::to_string(n) + ".corp.test/*\""; }

std::string Rules(int count) {
  std::string rules = "[";
  for (int i = 0; i < count; ++i) {
    if (i > 0) rules += ", ";
    std::string id = std::to_string(i);
    rules += "{\"name\": \"rule " + id + "\", \"patterns\": [" + Pattern(i) + ", \"corp.test/app" + id +
             "/*\", \"*/tools" + id + "/*\"]}";
  }
  return rules + "]";
}

constexpr int kRules = 40;
const char kBrowser[] =
    "\"browser\": {\"browserPathForNonWorkLinks\": \"file:///usr/share/applications/other-browser.desktop\", "
    "\"enabled_labs_experiments\": [\"a@1\", \"b@2\"], \"has_seen_welcome_page\": true}";

// A document of at least `size` bytes: `filler(n)` for n = 0, 1, ... between
// `head` and `tail`, separated by `separator`.
std::string Fill(size_t size, std::string head, const std::function<std::string(int)>& filler,
                 std::string_view separator, const std::string& tail) {
  for (int n = 0; head.size() + tail.size() < size; ++n) {
    if (n > 0) head += separator;
    head += filler(n);
  }
  return head + tail;
}

// The realistic shape: profiles by the thousand, 40 rules of 3 patterns.
std::string BrowserState(size_t size) {
  return Fill(size,
              std::string("{") + kBrowser + ", \"hardware_acceleration_mode_previous\": true, " +
                  "\"profile\": {\"last_used\": \"Default\", \"info_cache\": {",
              ProfileEntry, ", ",
              "}}, \"kel_prefs\": {\"device_id\": \"5f1c\", \"policy\": {\"cloud_policy_refresh\": 10800, "
              "\"browser_urls\": " +
                  Rules(kRules) +
                  "}}, \"user_experience_metrics\": {\"low_entropy_source3\": 4711, \"stability\": "
                  "{\"exited_cleanly\": true, \"stats_version\": \"120.0.1\"}}}");
}

// The dense shapes. Their policies have 40 rules too, except where the
// policy is what makes the file large.
const std::vector<std::pair<const char*, std::function<std::string(size_t)>>> kShapes = {
    {"browser state", BrowserState},
    {"one rule's patterns",
     [](size_t size) {
       return Fill(size, std::string("{") + kBrowser + ", \"kel_prefs\": {\"policy\": {\"browser_urls\": [" +
                             "{\"patterns\": [",
                   Pattern, ", ", "]}]}}}");
     }},
    {"short patterns",
     [](size_t size) {
       return Fill(size, "{\"kel_prefs\": {\"policy\": {\"browser_urls\": [{\"patterns\": [",
                   [](int) { return std::string("\"x*\""); }, ",", "]}]}}}");
     }},
    {"rules of 1 pattern",
     [](size_t size) {
       return Fill(size, std::string("{") + kBrowser + ", \"kel_prefs\": {\"policy\": {\"browser_urls\": [",
                   [](int n) { return "{\"patterns\": [" + Pattern(n) + "]}"; }, ", ", "]}}}");
     }},
    {"small numbers",
     [](size_t size) {
       return Fill(size, "{\"kel_prefs\": {\"policy\": {\"browser_urls\": " + Rules(kRules) + "}}, \"counts\": [",
                   [](int n) { return std::to_string(n % 10); }, ",", "]}");
     }},
    {"deep nesting",
     [](size_t size) {
       return Fill(size, "{\"kel_prefs\": {\"policy\": {\"browser_urls\": " + Rules(kRules) + "}}, \"tree\": [",
                   [](int) { return std::string(1000, '[') + std::string(1000, ']'); }, ",", "]}");
     }},
};

class LocalStateFile {
 public:
  explicit LocalStateFile(const std::string& data) {
    char dir[] = "/tmp/corvane_local_state_bench.XXXXXX";
    if (!mkdtemp(dir)) return;
    dir_ = dir;
    path_ = dir_ + "/Local State";
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
  LocalStateFile file(BrowserState(static_cast<size_t>(state.range(0))));
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
  if (rules != kRules) state.SkipWithError("the policy was not read");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(file.bytes()));
  state.counters["file_bytes"] = static_cast<double>(file.bytes());
}

BENCHMARK(BM_ReadLocalStatePolicy)->Arg(10 << 10)->Arg(100 << 10)->Arg(1 << 20)->Arg(5 << 20)->Unit(
    benchmark::kMicrosecond);

long PeakKilobytes() {
  long peak_kb = -1;
  if (FILE* status = fopen("/proc/self/status", "r")) {
    char line[256];
    while (fgets(line, sizeof(line), status)) sscanf(line, "VmHWM: %ld", &peak_kb);
    fclose(status);
  }
  return peak_kb;
}

long long CpuMicroseconds() {
  timespec now;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return now.tv_sec * 1000000LL + now.tv_nsec / 1000;
}

// Every shape's first pattern matches the first URL; no pattern matches the
// second, which therefore reaches them all.
constexpr char kWorkUrl[] = "https://x.app0.corp.test/";
constexpr char kOtherWebUrl[] = "https://other.test/";

// The child's part: one read, then the dispatcher's classifier given the
// policy and the URLs "mailto:x" and kWorkUrl, then kOtherWebUrl. On standard
// output: the number of rules read, the process's peak resident set in kB
// after the read, after the first two URLs and after the third, and the
// processor time in microseconds (user and system, as a busy machine
// stretches the wall clock) of the read and of the third URL. The peak is
// the kernel's VmHWM: unlike getrusage's, it starts afresh at exec, without
// the forking parent's pages.
int ReadOnce(const char* path) {
  logging::SetLogMessageHandler(&SwallowLine);
  long long start = CpuMicroseconds();
  dispatcher::LocalStatePolicy policy = dispatcher::ReadLocalStatePolicy(base::FilePath(path));
  long long read_us = CpuMicroseconds() - start;
  long read_kb = PeakKilobytes();
  size_t rules = policy.policy_urls ? policy.policy_urls->size() : 0;
  dispatcher::UrlClassifier classifier(std::move(policy.policy_urls));
  auto is_work = [&](const char* url) {
    return classifier.Classify(url, dispatcher::InvalidPatternHandling::kAbort).is_work;
  };
  // Without a policy every URL is a work URL.
  bool ok = is_work("mailto:x") == (rules == 0) && is_work(kWorkUrl);
  long two_urls_kb = PeakKilobytes();
  start = CpuMicroseconds();
  ok = ok && is_work(kOtherWebUrl) == (rules == 0);
  long long walk_us = CpuMicroseconds() - start;
  long walk_kb = PeakKilobytes();
  printf("%zu %ld %ld %ld %lld %lld\n", rules, read_kb, two_urls_kb, walk_kb, read_us, walk_us);
  return policy.status == dispatcher::LocalStateStatus::kParsed && ok && walk_kb > 0 ? 0 : 1;
}

struct Measurement {
  bool ok = false;
  size_t rules = 0;
  double read_mb = 0, two_urls_mb = 0, walk_mb = 0;
  double read_ms = 0, walk_ms = 0;
};

// Reads `path` and classifies in a fresh run of this program, whose peak
// resident set then is that of the dispatcher's work alone (plus the
// program's own).
Measurement MeasureRead(const char* self, const std::string& path) {
  Measurement result;
  int out[2];
  if (pipe(out) != 0) return result;
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], STDOUT_FILENO);
    close(out[0]);
    close(out[1]);
    execl(self, self, "--read", path.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  char text[128] = {};
  size_t got = 0;
  for (ssize_t n; got + 1 < sizeof(text) && (n = read(out[0], text + got, sizeof(text) - 1 - got)) > 0;) got += n;
  close(out[0]);
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return result;
  long read_kb = 0, two_urls_kb = 0, walk_kb = 0;
  long long read_us = 0, walk_us = 0;
  result.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
              sscanf(text, "%zu %ld %ld %ld %lld %lld", &result.rules, &read_kb, &two_urls_kb, &walk_kb, &read_us,
                     &walk_us) == 6;
  result.read_mb = static_cast<double>(read_kb) / 1024;
  result.two_urls_mb = static_cast<double>(two_urls_kb) / 1024;
  result.walk_mb = static_cast<double>(walk_kb) / 1024;
  result.read_ms = static_cast<double>(read_us) / 1000;
  result.walk_ms = static_cast<double>(walk_us) / 1000;
  return result;
}

void PrintPeakMemory(const char* self) {
  LocalStateFile empty("{}");
  Measurement base = MeasureRead(self, empty.path());
  printf("\nPeak memory in a fresh process (%.1f MB for an empty object): after one read; with the classifier\n"
         "given the policy, after mailto:x and %s (the first pattern); after %s\n"
         "(every pattern). x file: above the empty object's, per MB of the file.\n",
         base.two_urls_mb, kWorkUrl, kOtherWebUrl);
  printf("%-20s %7s %7s %9s %6s %10s %6s %8s %8s %7s\n", "shape", "file MB", "read MB", "2 URLs MB", "x file",
         "3rd URL MB", "x file", "read ms", "3rd ms", "rules");
  for (const auto& [name, make] : kShapes) {
    for (size_t size : {size_t{1} << 20, size_t{10} << 20, size_t{100} << 20}) {
      LocalStateFile file(make(size));
      Measurement read = MeasureRead(self, file.path());
      double file_mb = static_cast<double>(file.bytes()) / (1 << 20);
      if (!file.ok() || !read.ok || !base.ok) {
        printf("%-20s %7.1f   (the read or a classification failed)\n", name, file_mb);
        continue;
      }
      printf("%-20s %7.1f %7.1f %9.1f %6.2f %10.1f %6.2f %8.1f %8.1f %7zu\n", name, file_mb, read.read_mb,
             read.two_urls_mb, (read.two_urls_mb - base.two_urls_mb) / file_mb, read.walk_mb,
             (read.walk_mb - base.walk_mb) / file_mb, read.read_ms, read.walk_ms, read.rules);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string_view(argv[1]) == "--read") return ReadOnce(argv[2]);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  PrintPeakMemory("/proc/self/exe");
  return 0;
}
