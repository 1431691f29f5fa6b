// Reading what the stand-in browser (recorder_browser.cc) recorded about
// each of its runs.
#ifndef TESTS_SUPPORT_BROWSER_RECORD_H_
#define TESTS_SUPPORT_BROWSER_RECORD_H_

#include <dirent.h>
#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace corvane_test {

struct BrowserRecord {
  std::string name;          // base name it was started as
  int pid = 0;
  int ppid = 0;
  std::string stdin_target;  // where descriptor 0 led
  std::vector<std::string> args;  // argv[1..], byte for byte
  std::vector<std::string> fds;   // where the other open descriptors led
  std::map<std::string, std::string> env;  // the recorded variables that were set
};

inline BrowserRecord ParseBrowserRecord(const std::string& data) {
  BrowserRecord record;
  size_t pos = 0;
  while (pos < data.size()) {
    size_t key_end = data.find('\0', pos);
    if (key_end == std::string::npos) break;
    size_t value_end = data.find('\0', key_end + 1);
    if (value_end == std::string::npos) break;
    std::string key = data.substr(pos, key_end - pos);
    std::string value = data.substr(key_end + 1, value_end - key_end - 1);
    pos = value_end + 1;
    if (key == "name") record.name = value;
    else if (key == "pid") record.pid = std::atoi(value.c_str());
    else if (key == "ppid") record.ppid = std::atoi(value.c_str());
    else if (key == "stdin") record.stdin_target = value;
    else if (key == "arg") record.args.push_back(value);
    else if (key == "fd") record.fds.push_back(value);
    else if (key.rfind("env:", 0) == 0) record.env[key.substr(4)] = value;
  }
  return record;
}

// Every complete record in `directory`, ordered by name then pid.
inline std::vector<BrowserRecord> ReadBrowserRecords(const std::string& directory) {
  std::vector<BrowserRecord> records;
  DIR* dir = opendir(directory.c_str());
  if (!dir) return records;
  while (struct dirent* entry = readdir(dir)) {
    std::string file = entry->d_name;
    if (file.size() < 4 || file.compare(file.size() - 4, 4, ".rec") != 0) continue;
    records.push_back(ParseBrowserRecord(ReadFile(directory + "/" + file)));
  }
  closedir(dir);
  std::sort(records.begin(), records.end(), [](const BrowserRecord& a, const BrowserRecord& b) {
    return a.name != b.name ? a.name < b.name : a.pid < b.pid;
  });
  return records;
}

// Browsers write their records on their own time: waits until at least
// `count` records are there (or the time is up), then returns all of them.
inline std::vector<BrowserRecord> WaitForBrowserRecords(const std::string& directory, size_t count,
                                                        double timeout_seconds = 10) {
  struct timespec pause = {0, 20 * 1000 * 1000};
  for (double waited = 0; waited < timeout_seconds; waited += 0.02) {
    if (ReadBrowserRecords(directory).size() >= count) break;
    nanosleep(&pause, nullptr);
  }
  return ReadBrowserRecords(directory);
}

}  // namespace corvane_test

#endif  // TESTS_SUPPORT_BROWSER_RECORD_H_
