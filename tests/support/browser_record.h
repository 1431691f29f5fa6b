// What the stand-in browser (recorder_browser.cc) recorded about its runs: files of NUL-terminated key and value
// pairs, renamed into place whole.
#ifndef TESTS_SUPPORT_BROWSER_RECORD_H_
#define TESTS_SUPPORT_BROWSER_RECORD_H_

#include <unistd.h>

#include <map>
#include <vector>

#include "tests/support/temp_dir.h"

namespace corvane_test {

struct BrowserRecord {
  std::string name;  // base name it was started as, or the bus name it served
  int pid = 0;
  std::string stdin_target;                // where descriptor 0 led
  std::vector<std::string> args;           // argv[1..], byte for byte
  std::vector<std::string> fds;            // where its other descriptors led
  std::map<std::string, std::string> env;  // those of the recorded variables that were set
};

// Browsers write their records in their own time: waits until `directory` holds `count`, or the time is up.
inline std::vector<BrowserRecord> WaitForBrowserRecords(const std::string& directory, size_t count) {
  std::vector<BrowserRecord> records;
  for (int attempt = 0; attempt < 1000 && (attempt == 0 || records.size() < count); ++attempt) {
    if (attempt) usleep(20000);
    records.clear();
    std::error_code error;
    for (const auto& file : std::filesystem::directory_iterator(directory, error)) {
      if (file.path().extension() != ".rec") continue;
      std::istringstream in(ReadFile(file.path()));
      BrowserRecord& r = records.emplace_back();
      for (std::string k, v; std::getline(in, k, '\0') && std::getline(in, v, '\0');) {
        if (k == "name") r.name = v;
        else if (k == "pid") r.pid = std::stoi(v);
        else if (k == "stdin") r.stdin_target = v;
        else if (k == "arg") r.args.push_back(v);
        else if (k == "fd") r.fds.push_back(v);
        else r.env[k.substr(4)] = v;  // "env:NAME"
      }
    }
  }
  return records;
}

}  // namespace corvane_test

#endif  // TESTS_SUPPORT_BROWSER_RECORD_H_
