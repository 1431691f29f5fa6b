// Faults of the log and of Local State, through the real binary: whatever breaks, the dispatcher routes every URL (as
// the policy says when it can be read, else to the work browser), logs what happened, and ends by itself.
#include <sys/stat.h>

#include <cerrno>

#include <filesystem>
#include <functional>
#include <optional>

#include "tests/support/dispatcher_home.h"

namespace corvane_test {
namespace {

struct Paths {
  std::string logs, log_file, local_state;
  std::string json;  // a Local State with the policy and the non-work browser
};

struct FaultCase {
  const char* name;
  std::function<bool(const Paths&)> prepare;
  bool unprivileged;                // run as another user, for whom file modes count
  bool policy_kept;                 // the non-work URL reaches the non-work browser
  std::string line;                 // (the start of) a line the run must log
  std::optional<bool> log_written;  // whether the log file holds the run; nullopt: either
};
void PrintTo(const FaultCase& c, std::ostream* out) { *out << c.name; }

class FaultTest : public DispatcherHome, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(FaultTest, EveryUrlIsRoutedLoggedAndTheDispatcherEndsByItself) {
  const FaultCase& c = GetParam();
  Paths paths = {Home(".config/Halvard/Corvane/logs"), log_file_, local_state_,
                 LocalState("file://$HOME/B%20100%25/other%20browser")};
  ASSERT_TRUE(WriteFile(local_state_, paths.json));
  Strings prefix;
  if (c.unprivileged && RunningAsRoot()) {
    // Root ignores file modes: the dispatcher runs as "nobody", which may write records and, unless the case says
    // otherwise, the log.
    for (const std::string& folder : {Home("records"), paths.logs}) ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
    prefix = AsUnprivilegedUser();
  }
  ASSERT_TRUE(c.prepare(paths));
  ProcessOptions options = Options();
  options.timeout_seconds = 120;
  ProcessResult result = Run({kWorkUrl, kOtherUrl}, options, prefix);

  Strings messages = Messages(result.err);
  EXPECT_TRUE(std::any_of(messages.begin(), messages.end(), [&](auto& m) { return m.starts_with(c.line); }))
      << c.line << "\n" << result.err.substr(0, 3000);
  Strings expected = {std::string("work browser: ") + kWorkUrl,
                      std::string(c.policy_kept ? "other" : "work") + " browser: " + kOtherUrl};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(Received(2), expected);
  std::error_code error;
  bool written = std::filesystem::is_regular_file(std::filesystem::symlink_status(log_file_, error));
  EXPECT_EQ(written, c.log_written.value_or(written));
  EXPECT_EQ(written ? ReadFile(log_file_) : result.err, result.err);
}

// Local State `json` with `member` put first.
std::string With(const std::string& member, const std::string& json) { return "{" + member + ", " + json.substr(1); }

// A document of about 100 MB: browser state of the usual shape, the policy at the end.
std::string Huge(const std::string& json) {
  std::string entry = R"({"name": "Person 1", "avatar": ")" + std::string(180, 'a') +
                      R"(", "active_time": 1700000000.25, "flags": [true, false, null, 42]}, )";
  std::string filler;
  filler.reserve(100 << 20);
  while (filler.size() < (100 << 20)) filler += entry;
  return With(R"("profiles": [)" + filler + "{}]", json);
}

const std::string kFailedToParse = "Failed to parse Local State data. Error : ";

INSTANTIATE_TEST_SUITE_P(
    Faults, FaultTest,
    ::testing::ValuesIn(std::vector<FaultCase>{
        // The log: each line still reaches standard error.
        {"LogOnAFullDevice", [](auto& p) { return symlink("/dev/full", p.log_file.c_str()) == 0 || errno == EEXIST; },
         false, true, kBanner, std::nullopt},
        {"ReadOnlyLogsFolder", [](auto& p) { return chmod(p.logs.c_str(), 0555) == 0; }, true, true, kBanner, false},
        {"LogsIsAFile", [](auto& p) { return rmdir(p.logs.c_str()) == 0 ? WriteFile(p.logs, "") : FileExists(p.logs); },
         false, true, kBanner, false},
        {"LogFileIsAFolder", [](auto& p) { return MakeDirectories(p.log_file); }, false, true, kBanner, false},
        // Local State that cannot be read, or that the platform's reader refuses: no policy.
        {"UnreadableLocalState", [](auto& p) { return chmod(p.local_state.c_str(), 0) == 0; }, true, false,
         "Local State is not readable.", true},
        {"TenThousandLevels",
         [](auto& p) { return WriteFile(p.local_state, With(R"("deep": )" + std::string(10000, '[') +
                                                            std::string(10000, ']'), p.json)); },
         false, false, kFailedToParse, true},
        {"InvalidUtf8", [](auto& p) { return WriteFile(p.local_state, With("\"name\": \"Jos\xC3\x28\"", p.json)); },
         false, false, kFailedToParse, true},
        // Local State that the platform's reader takes: the policy stays.
        {"HundredMegabytes", [](auto& p) { return WriteFile(p.local_state, Huge(p.json)); }, false, true,
         "Successfully parsed Policy Doc URLs.", true},
        {"ByteOrderMark", [](auto& p) { return WriteFile(p.local_state, "\xEF\xBB\xBF" + p.json); }, false, true,
         "Successfully parsed Policy Doc URLs.", true},
        {"NumbersBeyondRange",
         [](auto& p) {
           return WriteFile(p.local_state, With(R"("n": [123456789012345678901234567890, 1e400, -99999999999999999999,
                                                         {"x": -1E+400, "y": 18446744073709551616}])", p.json));
         },
         false, true, "Successfully parsed Policy Doc URLs.", true},
        {"DuplicateKeysLastWins",
         [](auto& p) { return WriteFile(p.local_state, With(R"("kel_prefs": {"policy": {}}, "browser": 7)", p.json)); },
         false, true, "Successfully stored path for non-work browser", true},
    }),
    [](const ::testing::TestParamInfo<FaultCase>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace corvane_test
